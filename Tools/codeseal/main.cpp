// Signs programs and bundles, verifies and shows their signatures, and makes throw-away authorities
// for development. Exit status: 0 done or valid, 1 failed or refused, 2 not understood.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Certificates/IdentityFiles.h"
#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"
#include "Tools/codeseal/Authority.h"
#include "Tools/codeseal/Sealing.h"
#include "Tools/codeseal/SignatureReport.h"
#include "Tools/codeseal/WhyReport.h"

namespace {

using namespace platform;

constexpr int kNotUnderstood = 2;

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int fail(const std::string& text) {
  const std::string line = "codeseal: " + text + "\n";
  std::fputs(line.c_str(), stderr);
  return EXIT_FAILURE;
}

std::chrono::sys_seconds now() {
  return std::chrono::sys_seconds(std::chrono::seconds(::time({})));
}

// The caller may follow links on the way; the real path is what gets checked.
std::string realPath(const std::string& path) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(path, error).lexically_normal();
  if (!absolute.has_filename()) absolute = absolute.parent_path();  // The path ended with a slash.
  const auto folder = std::filesystem::canonical(absolute.parent_path(), error);
  return (error ? absolute : folder / absolute.filename()).string();
}

std::string ownRoot() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? "/" : platformRootOfExecutable(program.string()).value_or("/");
}

struct Arguments {
  bool json = false;
  std::string folder;
  std::string name = "Development";
  int days = 365;
  std::string root;
  std::vector<std::string> paths;
  std::string key;
  std::string certificates;
  std::optional<std::string> identifier;
  bool detached = false;
  bool programsBySignature = false;
  bool why = false;
};

int makeKeys(const Arguments& arguments) {
  const auto made =
      makeAuthority({arguments.folder, arguments.name, now(), std::chrono::days(arguments.days)});
  if (!made) return fail(describe(made.error()));
  nlohmann::ordered_json json{{"folder", arguments.folder}};
  std::string text = arguments.folder + ": made an authority and a signer\n";
  if (!arguments.root.empty()) {
    const auto anchor = installAnchor(arguments.folder, arguments.root);
    if (!anchor) return fail(describe(anchor.error()));
    json["anchor"] = *anchor;
    text += *anchor + ": is trusted now\n";
  }
  print(arguments.json ? json.dump(2) + "\n" : text);
  return EXIT_SUCCESS;
}

int sign(const Arguments& arguments) {
  const auto identity = readIdentity(arguments.key, arguments.certificates);
  if (!identity) return fail(describe(identity.error()));
  auto json = nlohmann::ordered_json::array();
  for (const std::string& path : arguments.paths) {
    const auto sealed = sealCode(
        realPath(path), *identity, {arguments.identifier, now()}, arguments.detached,
        arguments.programsBySignature ? SealPrograms::kBySignature : SealPrograms::kByContent);
    if (!sealed) return fail(describe(sealed.error()));
    for (const std::string& one : *sealed) {
      json.push_back(one);
      if (!arguments.json) print(one + ": signed\n");
    }
  }
  if (arguments.json) print(nlohmann::ordered_json{{"signed", json}}.dump(2) + "\n");
  return EXIT_SUCCESS;
}

// Reports on each path; `examine` returns the report of one.
template <typename Examine>
int report(const Arguments& arguments, const std::string& verdict, Examine examine,
           LinuxCodeSignatures* signatures = nullptr) {
  auto json = nlohmann::ordered_json::array();
  int status = EXIT_SUCCESS;
  for (const std::string& path : arguments.paths) {
    const std::string real = realPath(path);
    const SignatureReport made = makeReport(real, examine(real));
    if (!made.reason.empty()) status = EXIT_FAILURE;
    const auto why =
        signatures && arguments.why ? explainVerdict(*signatures, real) : std::vector<WhyLine>();
    if (arguments.json) {
      json.push_back(asJson(made));
      for (const WhyLine& line : why) {
        json.back()["why"].push_back({{"question", line.question}, {"answer", line.answer}});
      }
    } else {
      print(asText(made, verdict) + asText(why));
    }
  }
  if (arguments.json) print(json.dump(2) + "\n");
  return status;
}

int verify(const Arguments& arguments) {
  const auto signatures = LinuxCodeSignatures::create(realPath(arguments.root), now);
  if (!signatures) return fail(describe(signatures.error()));
  return report(
      arguments, "valid",
      [&](const std::string& path) -> CodeSigningResult<SignatureStatement> {
        const auto code = (*signatures)->SecStaticCodeCreateWithPath(path);
        if (!code) return std::unexpected(code.error());
        const auto verdict = (*signatures)->check(path, (*code)->kind());
        if (!verdict) return std::unexpected(verdict.error());
        return (*verdict)->signature.statement;
      },
      signatures->get());
}

int show(const Arguments& arguments) {
  return report(arguments, "signed, not verified", [](const std::string& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error) ? readBundleSignature(path)
                                                      : readProgramSignature(path);
  });
}

void describeCommands(CLI::App& app, Arguments& arguments) {
  app.require_subcommand(1);
  auto* keys = app.add_subcommand("make-keys", "Make a throw-away authority and a signer");
  keys->add_option("folder", arguments.folder, "Where the keys go")->required();
  keys->add_option("--name", arguments.name, "In the names of both")->capture_default_str();
  keys->add_option("--days", arguments.days, "How long they are valid")
      ->capture_default_str()
      ->check(CLI::Range(1, 36'500));
  keys->add_option("--trust-in", arguments.root, "A platform root that is to trust them");
  auto* sign = app.add_subcommand("sign", "Sign programs, scripts and bundles");
  sign->add_option("paths", arguments.paths, "What is to be signed")->required();
  sign->add_option("--key", arguments.key, "The signer's private key, PEM")->required();
  sign->add_option("--certificates", arguments.certificates,
                   "The signer's certificate and those up to the authority's, PEM")
      ->required();
  sign->add_option("--identifier", arguments.identifier, "Default: each file's name");
  sign->add_flag("--detached", arguments.detached, "Write NAME.p7s also for programs");
  sign->add_flag("--programs-by-signature", arguments.programsBySignature,
                 "A bundle's seal names its programs by their signatures, so that they may be "
                 "replaced");
  auto* verify = app.add_subcommand("verify", "Check programs and bundles");
  verify->add_option("paths", arguments.paths, "What is to be checked")->required();
  verify->add_option("--root", arguments.root, "The platform root with the anchors")
      ->default_str("the one that this program lies in, else /");
  verify->add_flag("--why", arguments.why, "Tell each step that leads to the verdict");
  auto* show = app.add_subcommand("show", "Tell what signatures say, without checking them");
  show->add_option("paths", arguments.paths, "What is to be shown")->required();
  for (CLI::App* command : {keys, sign, verify, show}) {
    command->add_flag("--json", arguments.json, "For programs");
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Signs programs and bundles, and checks what was signed.", "codeseal");
  Arguments arguments;
  describeCommands(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kNotUnderstood;
  }
  if (app.got_subcommand("make-keys")) return makeKeys(arguments);
  if (app.got_subcommand("sign")) return sign(arguments);
  if (app.got_subcommand("show")) return show(arguments);
  if (arguments.root.empty()) arguments.root = ownRoot();
  return verify(arguments);
}
