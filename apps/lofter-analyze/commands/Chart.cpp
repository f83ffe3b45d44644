// chart: the boot as a picture.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "analysis/Course.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "posix/File.h"
#include "report/SvgChart.h"
#include "report/TraceEvents.h"

namespace lofter::analyze {

namespace {

using Writer = void (*)(const Boot&, const Course&, std::ostream&);

Writer WriterFor(const std::string& path) {
    if (path.ends_with(".svg")) {
        return WriteSvgChart;
    }
    if (path.ends_with(".json")) {
        return WriteTraceEvents;
    }
    throw UsageError("chart: the file's name has to end in .svg or .json: " + path);
}

void WriteFile(const std::string& path, const std::string& content) {
    const posix::Descriptor file = posix::OpenFile(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (!file || !posix::WriteWhole(file, content)) {
        throw InputError(path, std::strerror(errno));
    }
}

int Run(const Question& question, const std::string& path) {
    RequireFormat(question, "chart", {Format::Text});
    const Writer write = WriterFor(path);
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    RequireLog(boot, "chart");
    std::ostringstream content;
    write(boot, FindCourse(boot), content);
    WriteFile(path, content.str());
    return kFine;
}

}  // namespace

Command DeclareChart(CLI::App& part) {
    const auto path = std::make_shared<std::string>();
    part.add_option("-o,--output", *path, "a picture (.svg), or events for a trace viewer (.json)")
        ->type_name("FILE")
        ->required();
    return [path](const Question& question) {
        return Run(question, *path);
    };
}

}  // namespace lofter::analyze
