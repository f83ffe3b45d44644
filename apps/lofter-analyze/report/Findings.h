// Findings as people read them, as programs do, and as code review tools do (SARIF 2.1.0).
#pragma once

#include <ostream>
#include <vector>

#include "analysis/Finding.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

// "FILE[:LINE[:COLUMN]]: severity: text [rule]", a line each, then how many there are of each severity.
void PrintFindings(const std::vector<Finding>& findings, std::ostream& output, const Palette& palette);

// The members "findings", "errors", "warnings" and "notes".
void AddFindings(Json& answer, const std::vector<Finding>& findings);

Json Sarif(const std::vector<Finding>& findings);

}  // namespace lofter::analyze
