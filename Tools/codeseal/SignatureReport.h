#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/VerifiedCode.h"

// The facts about the code at a path, for people and for programs.
struct SignatureReport {
  struct Certificate {
    std::string subject;
    std::string issuer;
    std::optional<std::chrono::sys_seconds> notBefore;
    std::optional<std::chrono::sys_seconds> notAfter;
  };

  std::string path;
  platform::OSStatus status = platform::errSecSuccess;
  std::string reason;  // empty if nothing is wrong
  std::optional<std::string> identifier;
  std::optional<std::chrono::sys_seconds> signingTime;
  std::string digest;
  std::vector<Certificate> certificates;
};

// Reports a signature that was verified or read.
SignatureReport makeReport(
    const std::string& path,
    const platform::CodeSigningResult<platform::SignatureStatement>& statement);

// `verdict` is the word that begins the report.
std::string asText(const SignatureReport& report, const std::string& verdict);
nlohmann::ordered_json asJson(const SignatureReport& report);
