#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Tools/lint/FileLint.h"

namespace lint {

// A catalogue without a finding. Each line has one thing that a test can break.
inline constexpr std::string_view kCleanCatalogue = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>Primary</key>
  <string>com.example.configd</string>
  <key>ProgramPath</key>
  <string>/usr/lib/example</string>
  <key>ProductInfo</key>
  <string>product.plist</string>
  <key>ProductInfoKey</key>
  <string>GUID</string>
  <key>Services</key>
  <dict>
    <key>com.example.configd</key>
    <dict>
      <key>Products</key>
      <array>
        <string>kKLXInstallTypeHostedManagedID</string>
      </array>
      <key>JobSpec</key>
      <dict>
        <key>Program</key>
        <string>configd</string>
        <key>ProgramArguments</key>
        <array><string>configd</string></array>
      </dict>
      <key>Notification</key>
      <string>com.example.configd.didstart</string>
    </dict>
    <key>com.example.filter</key>
    <dict>
      <key>Products</key>
      <array>
        <string>kKLXInstallTypeHostedManagedID</string>
      </array>
      <key>JobSpec</key>
      <dict>
        <key>Program</key>
        <string>filter</string>
        <key>ProgramArguments</key>
        <array><string>filter</string></array>
        <key>ThrottleInterval</key>
        <integer>1</integer>
        <key>ExitTimeOut</key>
        <integer>5</integer>
        <key>MachServices</key>
        <dict><key>com.example.filter</key><true/></dict>
      </dict>
      <key>Notification</key>
      <string>com.example.filter.didstart</string>
      <key>MinimumOSVersion</key>
      <string>10.11</string>
      <key>KernelExtensions</key>
      <array>
        <string>files</string>
      </array>
      <key>Features</key>
      <array>
        <string>WebFilter</string>
      </array>
    </dict>
  </dict>
  <key>KernelExtensions</key>
  <dict>
    <key>files</key>
    <dict>
      <key>Identifier</key>
      <string>com.example.nke.files</string>
      <key>Options</key>
      <array><string>secure</string></array>
    </dict>
  </dict>
  <key>Features</key>
  <dict>
    <key>WebFilter</key>
    <dict>
      <key>Config</key>
      <array>
        <dict>
          <key>Source</key>
          <string>common</string>
          <key>Switches</key>
          <dict>
            <key>WebFilterEnabled</key>
            <integer>1</integer>
          </dict>
        </dict>
      </array>
    </dict>
  </dict>
</dict>
</plist>
)";

// The findings as lines "LINE:COLUMN SEVERITY CODE: sentence".
inline std::vector<std::string> linesOf(const FileReport& report) {
  std::vector<std::string> lines;
  for (const Finding& finding : report.findings) {
    const auto at = finding.position.value_or(platform::TextPosition{0, 0});
    lines.push_back(fmt::format("{}:{} {} {}: {}", at.line, at.column,
                                nameOf(finding.code->severity), finding.code->code,
                                finding.message));
  }
  return lines;
}

}  // namespace lint
