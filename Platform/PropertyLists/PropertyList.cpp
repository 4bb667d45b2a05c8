#include "Platform/PropertyLists/PropertyList.h"

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListBinaryObjects.h"
#include "Platform/PropertyLists/PropertyListBinaryReader.h"
#include "Platform/PropertyLists/PropertyListBinaryWriter.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListWritable.h"
#include "Platform/PropertyLists/PropertyListXmlReader.h"
#include "Platform/PropertyLists/PropertyListXmlWriter.h"

namespace platform {

Result<Value> readPropertyList(std::span<const std::uint8_t> bytes, std::string_view sourceName) {
  if (bytes.size() > kMaxPropertyListBytes) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0,
                                 fmt::format("{}: {} bytes, expected at most {}", sourceName,
                                             bytes.size(), kMaxPropertyListBytes)});
  }
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return text.starts_with(kBinaryPropertyListMagic) ? readBinaryPropertyList(bytes, sourceName)
                                                    : readXmlPropertyList(bytes, sourceName);
}

Result<Value> readPropertyList(std::string_view bytes, std::string_view sourceName) {
  return readPropertyList(
      std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), sourceName);
}

Result<Data> writePropertyList(const Value& value, PropertyListFormat format) {
  const Result<void> writable = checkWritable(value, format);
  if (!writable) return std::unexpected(writable.error());
  switch (format) {
    case PropertyListFormat::kXml: {
      const Result<std::string> text = xmlPropertyListText(value);
      if (!text) return std::unexpected(text.error());
      return Data(text->begin(), text->end());
    }
    case PropertyListFormat::kBinary:
      return binaryPropertyListBytes(value);
  }
  std::unreachable();
}

}  // namespace platform
