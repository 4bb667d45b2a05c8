#pragma once

#include <string>
#include <vector>

#include "Tools/servicemanagerctl/DoctorFindings.h"

// The judgements about the parts, for doctorFindings().

using Findings = std::vector<Finding>;

// Adds "PART-unknown", a note: the reason why there is no fact, and how to get it.
void addUnknown(Findings& findings, const std::string& part, const NotKnown& unknown,
                const std::string& what);

void judgeServers(Findings& findings, const DoctorFacts& facts);
void judgeSockets(Findings& findings, const DoctorFacts& facts);
void judgeGroup(Findings& findings, const DoctorFacts& facts);
void judgeLimits(Findings& findings, const DoctorFacts& facts);
void judgeKernel(Findings& findings, const DoctorFacts& facts);
void judgeAnchors(Findings& findings, const DoctorFacts& facts);
void judgeClock(Findings& findings, const DoctorFacts& facts);
void judgeDisks(Findings& findings, const DoctorFacts& facts);
