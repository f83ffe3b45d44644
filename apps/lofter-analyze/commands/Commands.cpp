#include "commands/Commands.h"

#include <algorithm>

#include "input/Errors.h"

namespace lofter::analyze {

namespace {

const char* NameOf(Format format) {
    switch (format) {
        case Format::Json:
            return "json";
        case Format::Sarif:
            return "sarif";
        case Format::Text:
            break;
    }
    return "text";
}

}  // namespace

void RequireFormat(const Question& question, const std::string& command, std::initializer_list<Format> formats) {
    const Format format = question.options.output.format;
    if (std::find(formats.begin(), formats.end(), format) == formats.end()) {
        throw UsageError(command + ": its answer has no form for --format=" + NameOf(format));
    }
}

}  // namespace lofter::analyze
