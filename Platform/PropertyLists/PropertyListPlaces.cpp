#include "Platform/PropertyLists/PropertyListPlaces.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

#include <expat.h>

#include "Platform/PropertyLists/PropertyListBinaryObjects.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListXmlEncoding.h"

namespace platform {
namespace {

// Follows the elements of XML that is known to be a property list, so it checks nothing.
class PlaceRecorder {
 public:
  explicit PlaceRecorder(XML_Parser parser) : parser_(parser) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser,
        [](void* self, const XML_Char* name, const XML_Char**) {
          static_cast<PlaceRecorder*>(self)->start(name);
        },
        [](void* self, const XML_Char* name) { static_cast<PlaceRecorder*>(self)->end(name); });
  }

  PropertyListPlace takeRoot() { return std::move(root_); }

 private:
  static bool isValue(std::string_view name) { return name != "plist" && name != "key"; }

  void start(std::string_view name) {
    const TextPosition here{XML_GetCurrentLineNumber(parser_),
                            XML_GetCurrentColumnNumber(parser_) + 1};
    if (name == "key") key_ = here;
    if (!isValue(name)) return;
    PropertyListPlace& place = open_.empty() ? root_ : open_.back()->children.emplace_back();
    place.key = key_;
    place.value = here;
    open_.push_back(&place);
  }

  void end(std::string_view name) {
    if (isValue(name) && !open_.empty()) open_.pop_back();
  }

  XML_Parser parser_;
  PropertyListPlace root_;
  TextPosition key_;
  // The values whose end tag has not come. Each is the last child of the one before it, so it stays
  // where it is for as long as it is open.
  std::vector<PropertyListPlace*> open_;
};

}  // namespace

std::optional<PropertyListPlace> placesInPropertyList(std::string_view bytes) {
  if (bytes.starts_with(kBinaryPropertyListMagic) || bytes.size() > kMaxPropertyListBytes) {
    return std::nullopt;
  }
  std::string converted;
  const auto text = utf8OfXml(
      std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), "", converted);
  if (!text) return std::nullopt;
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
      XML_ParserCreate("UTF-8"), &XML_ParserFree);
  if (!parser) return std::nullopt;
  PlaceRecorder recorder(parser.get());
  const XML_Status status =
      XML_Parse(parser.get(), text->data(), static_cast<int>(text->size()), XML_TRUE);
  if (status != XML_STATUS_OK) return std::nullopt;
  return recorder.takeRoot();
}

}  // namespace platform
