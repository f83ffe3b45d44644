// stuck: what a boot that hangs waits for, from a capture of its console, kernel log or syslog.
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "analysis/Standstill.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/ConsoleCapture.h"
#include "input/Errors.h"
#include "input/GivenFile.h"
#include "input/LineWarnings.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct Answer {
    Boot boot;
    Standstill standstill;
    std::vector<CapturedBoot::Failure> failures;

    const std::string& NameOf(PluginIndex plugin) const { return boot.plugins[plugin].Name(); }

    std::vector<std::string> NamesIn(const Cycle& cycle) const {
        std::vector<std::string> names;
        names.reserve(cycle.size());
        for (const CycleStep& step : cycle) {
            names.push_back(NameOf(step.plugin));
        }
        return names;
    }

    std::vector<std::string> NamesIn(const std::vector<BarrierIndex>& barriers) const {
        std::vector<std::string> names;
        names.reserve(barriers.size());
        for (const BarrierIndex barrier : barriers) {
            names.push_back(boot.barriers[barrier].name);
        }
        return names;
    }

    bool IsStuck() const {
        return !standstill.running.empty() || !standstill.waiting.empty() || !standstill.loops.empty();
    }
};

Answer FindAnswer(const InputOptions& input, const std::string& file) {
    std::vector<BootPlugin> plugins = ReadPlugins(input, std::cerr).plugins;
    CapturedBoot captured = ParseConsoleCapture(ReadGivenFile(file), std::move(plugins), input.isParallel);
    if (!captured.hasBegun) {
        throw NoAnswerError("stuck: no plugin begins in " + Shown(ShownInput(file)));
    }
    LineWarnings(ShownInput(file), std::cerr)
        .AddNames("the capture has plugins that are not known otherwise, or kept out by these options",
                  captured.strangers);
    Boot boot = MakeBoot(std::move(captured.plugins), std::nullopt);
    Standstill standstill = FindStandstill(boot, WithWhatMustBeOver(boot, std::move(captured.progress)));
    return {std::move(boot), std::move(standstill), std::move(captured.failures)};
}

void WriteJson(const Answer& answer, std::ostream& output) {
    Json json = analyze::Answer("stuck");
    Json& running = json["running"] = Json::array();
    for (const Standstill::Holder& holder : answer.standstill.running) {
        running.push_back(answer.NameOf(holder.plugin));
    }
    Json& failed = json["failed"] = Json::array();
    for (const CapturedBoot::Failure& failure : answer.failures) {
        failed.push_back({{"plugin", answer.NameOf(failure.plugin)}, {"reason", failure.reason}});
    }
    Json& waiting = json["waiting"] = Json::array();
    for (const Standstill::Waiter& waiter : answer.standstill.waiting) {
        waiting.push_back({{"plugin", answer.NameOf(waiter.plugin)},
                           {"for", answer.NamesIn(waiter.barriers)},
                           {"held_by", NamesOf(answer.boot, waiter.heldBy)}});
    }
    Json& cycles = json["cycles"] = Json::array();
    for (const Standstill::Loop& loop : answer.standstill.loops) {
        cycles.push_back(answer.NamesIn(loop.cycle));
    }
    Print(json, output);
}

// Each kind of trouble as a table of its own, with a blank line behind it.
class Text {
  public:
    Text(const Answer& theAnswer, std::ostream& theOutput, const Palette& thePalette)
        : answer(theAnswer), output(theOutput), palette(thePalette) {}

    void Write() const {
        Table running({{"running"}, {"holds up"}});
        for (const Standstill::Holder& holder : answer.standstill.running) {
            running.Add({Shown(answer.NameOf(holder.plugin)), Counted(holder.holdsUp, "plugin")}, Colour::Red);
        }
        Table failed({{"failed"}, {"reason"}});
        for (const CapturedBoot::Failure& failure : answer.failures) {
            failed.Add({Shown(answer.NameOf(failure.plugin)), Shown(failure.reason)}, Colour::Yellow);
        }
        Table cycles({{"holds up"}, {"waiting for each other"}});
        for (const Standstill::Loop& loop : answer.standstill.loops) {
            cycles.Add({Counted(loop.holdsUp, "plugin"), Shown(ShownCycle(answer.boot, loop.cycle))}, Colour::Red);
        }
        Table waiting({{"waiting"}, {"for"}});
        for (const Standstill::Waiter& waiter : answer.standstill.waiting) {
            waiting.Add({Shown(answer.NameOf(waiter.plugin)), Listed(answer.NamesIn(waiter.barriers)) + "; behind " +
                                                                  Listed(NamesOf(answer.boot, waiter.heldBy))});
        }
        Print(running, answer.standstill.running.size());
        Print(failed, answer.failures.size());
        Print(cycles, answer.standstill.loops.size());
        Print(waiting, answer.standstill.waiting.size());
        output << (answer.IsStuck() ? "" : "nothing is stuck: ") << answer.standstill.running.size() << " running, "
               << answer.failures.size() << " failed, " << answer.standstill.waiting.size() << " waiting, "
               << Counted(answer.standstill.loops.size(), "cycle") << '\n';
    }

  private:
    void Print(const Table& table, std::size_t rows) const {
        if (rows > 0) {
            table.Print(output, palette);
            output << '\n';
        }
    }

    const Answer& answer;
    std::ostream& output;
    const Palette& palette;
};

int Run(const Question& question, const std::string& file) {
    RequireFormat(question, "stuck", {Format::Text, Format::Json});
    const Answer answer = FindAnswer(question.options.input, file);
    if (question.options.output.format == Format::Json) {
        WriteJson(answer, question.output);
    } else {
        Text(answer, question.output, Palette(question.options.output.colours)).Write();
    }
    return answer.IsStuck() ? kFindings : kFine;
}

}  // namespace

Command DeclareStuck(CLI::App& part) {
    const auto file = std::make_shared<std::string>();
    part.add_option("FILE", *file, "the boot's console, kernel log or syslog; - is standard input")->required();
    return [file](const Question& question) {
        return Run(question, *file);
    };
}

}  // namespace lofter::analyze
