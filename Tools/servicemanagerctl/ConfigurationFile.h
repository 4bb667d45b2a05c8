#pragma once

#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

// A file with one value, in any of the forms that this tool reads and writes.

enum class FileForm { kXml, kBinary, kJson };

// "xml", "binary", "json"; the form of a name that is one of these.
std::string nameOf(FileForm form);
FileForm formNamed(const std::string& name);

struct ConfigurationFile {
  platform::Value value;
  FileForm form = FileForm::kXml;
};

// Reads a regular file. A text that begins with "{" or "[" is JSON, any other a property list.
platform::Result<ConfigurationFile> readConfigurationFile(const std::string& path);

// The bytes of a file with the value. Fails if the form can't hold it.
platform::Result<std::string> contentOf(const platform::Value& value, FileForm form);

// Replaces the file atomically, as writePropertyListFile() does. A symbolic link stays, and its
// target is replaced. Fails if there is anything but a regular file, such as a device.
platform::Result<void> writeConfigurationFile(const std::string& path, const std::string& content);
