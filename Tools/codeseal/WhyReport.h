#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"

// One question of a check, and its answer, for people.
struct WhyLine {
  std::string question;
  std::string answer;
};

// The steps that lead to the verdict on the code at `path`, which is its real one.
std::vector<WhyLine> explainVerdict(platform::LinuxCodeSignatures& signatures,
                                    const std::string& path);

// One line for each.
std::string asText(const std::vector<WhyLine>& lines);
