// verify: what is wrong with a host's plugins before it boots.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "input/Errors.h"
#include "input/Verification.h"
#include "report/Findings.h"

namespace lofter::analyze {

namespace {

struct VerifyOptions {
    Severity failOn = Severity::Error;
    std::set<std::string> disabledRules;
};

bool IsRule(const std::string& name) {
    return std::any_of(Rules().begin(), Rules().end(), [&](const Rule& rule) { return rule.name == name; });
}

void Answer(const std::vector<Finding>& findings, const Question& question) {
    const OutputOptions& output = question.options.output;
    if (output.format == Format::Text) {
        PrintFindings(findings, question.output, Palette(output.colours));
    } else if (output.format == Format::Sarif) {
        Print(Sarif(findings), question.output);
    } else {
        Json answer = analyze::Answer("verify");
        AddFindings(answer, findings);
        Print(answer, question.output);
    }
}

int Run(const VerifyOptions& options, const Question& question) {
    std::vector<Finding> findings = Verify(question.options.input, std::cerr);
    std::erase_if(findings, [&](const Finding& finding) { return options.disabledRules.contains(finding.rule); });
    Answer(findings, question);
    const bool fails = std::any_of(findings.begin(), findings.end(),
                                   [&](const Finding& finding) { return finding.severity >= options.failOn; });
    return fails ? kFindings : kFine;
}

}  // namespace

Command DeclareVerify(CLI::App& part) {
    const auto options = std::make_shared<VerifyOptions>();
    const std::map<std::string, Severity> severities{
        {"error", Severity::Error}, {"warning", Severity::Warning}, {"note", Severity::Note}};
    part.add_option("--fail-on", options->failOn,
                    "the least finding that fails: error, warning or note (default: error)")
        ->type_name("SEVERITY")
        ->transform(CLI::CheckedTransformer(severities).description(""));
    part.add_option_function<std::vector<std::string>>(
            "--disable",
            [options](const std::vector<std::string>& rules) {
                for (const std::string& rule : rules) {
                    if (!IsRule(rule)) {
                        throw UsageError("--disable: there is no rule " + rule);
                    }
                    options->disabledRules.insert(rule);
                }
            },
            "without the findings of these rules")
        ->type_name("RULE[,RULE]")
        ->delimiter(',')
        ->allow_extra_args(false);
    return [options](const Question& question) {
        return Run(*options, question);
    };
}

}  // namespace lofter::analyze
