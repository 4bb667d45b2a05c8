#include "Platform/Testing/PropertyLists/PythonPropertyLists.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

constexpr std::string_view kScript = R"py(
import datetime, math, plistlib, struct, sys
def real(x):
    return struct.pack(">d", float("nan") if math.isnan(x) else x).hex()
def canonical(v):
    if v is None: return "n"
    if v is True: return "true"
    if v is False: return "false"
    if isinstance(v, int): return "i%d" % v
    if isinstance(v, float): return "r" + real(v)
    if isinstance(v, datetime.datetime):
        return "t" + real((v - datetime.datetime(2001, 1, 1)).total_seconds())
    if isinstance(v, str): return "s" + v.encode("utf-8", "surrogatepass").hex()
    if isinstance(v, bytes): return "b" + v.hex()
    if isinstance(v, list): return "[" + "".join(canonical(x) + "," for x in v) + "]"
    if isinstance(v, dict):
        return "{" + "".join(k.encode().hex() + ":" + canonical(x) + "," for k, x in v.items()) + "}"
    return "?" + type(v).__name__
def written(v, form):
    try:
        return plistlib.dumps(v, fmt=form, sort_keys=False).hex()
    except Exception:
        return ""
for line in open(sys.argv[1]):
    try:
        value = plistlib.loads(bytes.fromhex(line))
    except Exception as e:
        print("!" + type(e).__name__ + ";;")
        continue
    print(canonical(value), written(value, plistlib.FMT_XML), written(value, plistlib.FMT_BINARY),
          sep=";")
)py";

Data fromHex(std::string_view text) {
  const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
  Data data;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    data.push_back(static_cast<std::uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
  }
  return data;
}

std::string toHex(const Data& data) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : data) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

std::optional<std::string> outputOf(const std::string& command) {
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return std::nullopt;
  std::string output;
  char chunk[65536];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, pipe))
    output.append(chunk, got);
  return ::pclose(pipe) == 0 ? std::optional(output) : std::nullopt;
}

}  // namespace

std::optional<std::vector<PythonPropertyList>> readWithPython(const std::vector<Data>& lists) {
  const TemporaryFolder folder;
  const std::string script = folder.path() + "/script.py";
  const std::string input = folder.path() + "/input";
  std::ofstream(script) << kScript;
  std::ofstream stream(input);
  for (const Data& list : lists) stream << toHex(list) << '\n';
  stream.close();
  const auto output = outputOf("python3 '" + script + "' '" + input + "'");
  if (!stream || !output) return std::nullopt;

  std::vector<PythonPropertyList> answers;
  std::istringstream lines(*output);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(';');
    const std::size_t second = line.find(';', first + 1);
    if (second == line.npos) return std::nullopt;
    answers.push_back({line.substr(0, first), fromHex(line.substr(first + 1, second - first - 1)),
                       fromHex(line.substr(second + 1))});
  }
  if (answers.size() != lists.size()) return std::nullopt;
  return answers;
}

}  // namespace platform
