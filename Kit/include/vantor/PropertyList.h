#pragma once

#include <string_view>

#include <vantor/Api.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

// The value of a property list in XML, binary or JSON. Reads only a regular file, not through a
// symbolic link. Fails with kNotFound if there is no such file. An error names the file and, if it
// is malformed, the place. Blocks for the disk. Any thread may call it.
VANTOR_KIT_API Result<Value> readPropertyList(std::string_view path);

}  // namespace vantor
