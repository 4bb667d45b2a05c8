// Reads a catalogue of a thousand services, as large as a real one is ever expected to be.

#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <fmt/core.h>
#include <libxml/xmlreader.h>

#include "Benchmarks/Goal.h"
#include "Platform/PropertyLists/PropertyList.h"

namespace benchmarks {
namespace {

using namespace platform;

Value service(int number) {
  const std::string name = fmt::format("com.vantor.service.component{}", number);
  const std::string folder = fmt::format("/opt/vantor/components/component{}", number);
  return Dictionary{
      {"Program", folder + "/bin/service"},
      {"ProgramArguments", Array{folder + "/bin/service", "--label", name, "--verbose"}},
      {"KeepAlive", true},
      {"RunAtLoad", number % 3 == 0},
      {"ThrottleInterval", 10},
      {"MinimumOSVersion", "10.9"},
      {"Description", fmt::format("Watches files & processes of <group {}>", number % 17)},
      {"MachServices", Dictionary{{name, true}, {name + ".control", true}}},
      {"EnvironmentVariables", Dictionary{{"HOME", "/var/root"}, {"LANG", "en_US.UTF-8"}}},
      {"Products", Array{"Endpoint", "Server", "Gateway"}},
      {"Features",
       Array{Dictionary{
           {"Source", "webProtectionSettings"}, {"Key", "Enabled"}, {"Value", number % 2}}}},
      {"Weight", number * 0.25},
      {"Seal", Data(32, static_cast<std::uint8_t>(number))},
      {"Since", Date{number * 86'400.0}},
  };
}

const Value& catalogue() {
  static const Value kCatalogue = [] {
    Dictionary services;
    for (int i = 0; i < 1000; ++i) {
      services.set(fmt::format("com.vantor.service.component{}", i), service(i));
    }
    return Value(Dictionary{{"Version", 1}, {"Services", std::move(services)}});
  }();
  return kCatalogue;
}

const Data& list(PropertyListFormat format) {
  static const Data kXml = *writePropertyList(catalogue(), PropertyListFormat::kXml);
  static const Data kBinary = *writePropertyList(catalogue(), PropertyListFormat::kBinary);
  return format == PropertyListFormat::kXml ? kXml : kBinary;
}

void read(benchmark::State& state, PropertyListFormat format) {
  const Data& bytes = list(format);
  for (auto _ : state) {
    const Result<Value> value = readPropertyList(bytes, "Service.plist");
    if (!value) state.SkipWithError("the catalogue was not read");
  }
  const Result<Value> value = readPropertyList(bytes, "Service.plist");
  if (!value || *value != catalogue()) state.SkipWithError("something else was read");
}

// libxml2's reader with the same options as ours; it visits every node and keeps none.
void walk(benchmark::State& state) {
  const Data& bytes = list(PropertyListFormat::kXml);
  for (auto _ : state) {
    const std::unique_ptr<xmlTextReader, decltype(&xmlFreeTextReader)> reader(
        xmlReaderForMemory(reinterpret_cast<const char*>(bytes.data()),
                           static_cast<int>(bytes.size()), nullptr, "UTF-8",
                           XML_PARSE_NONET | XML_PARSE_COMPACT | XML_PARSE_IGNORE_ENC),
        &xmlFreeTextReader);
    int outcome = 0;
    while ((outcome = xmlTextReaderRead(reader.get())) == 1) {
      benchmark::DoNotOptimize(xmlTextReaderConstLocalName(reader.get()));
      benchmark::DoNotOptimize(xmlTextReaderConstValue(reader.get()));
    }
    if (outcome != 0) state.SkipWithError("libxml2 did not read the catalogue");
  }
}

BENCHMARK_CAPTURE(read, xml, PropertyListFormat::kXml)->Name("plist-xml-read/subject");
BENCHMARK(walk)->Name("plist-xml-read/baseline");
const bool kXmlGoal = atMost(
    {"plist-xml-read", 2.0, "our XML reader against libxml2's reader walking the same list"});

BENCHMARK_CAPTURE(read, binary, PropertyListFormat::kBinary)->Name("plist-binary-read/subject");
BENCHMARK(walk)->Name("plist-binary-read/baseline");
const bool kBinaryGoal =
    atMost({"plist-binary-read", 0.5,
            "our binary reader against libxml2's reader walking the same catalogue as XML"});

}  // namespace
}  // namespace benchmarks
