// plan: in which order plugins would run.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "analysis/Chains.h"
#include "analysis/Forecast.h"
#include "commands/Answers.h"
#include "commands/Commands.h"
#include "input/BootInput.h"
#include "input/Errors.h"
#include "report/Json.h"
#include "report/Text.h"

namespace lofter::analyze {

namespace {

struct Plan {
    std::size_t threads;
    Forecast forecast;
    bool hasTimes;
    std::vector<std::optional<Microseconds>> depths;
    std::vector<std::string> waitForEver;
};

// A log says how many threads there were; without one, `--parallel` means that nobody waits for a thread.
Plan MakePlan(const Boot& boot, bool isParallel, const std::optional<std::size_t>& threads) {
    const std::vector<Microseconds> ones(boot.plugins.size(), 1);
    ForecastModel model{ones, isParallel ? std::max<std::size_t>(boot.plugins.size(), 1) : 1, 0};
    if (boot.run) {
        model = MeasuredModel(boot);
    }
    model.threads = threads.value_or(model.threads);
    Plan plan{model.threads, MakeForecast(boot, model), boot.run.has_value(), LongestBefore(boot, ones), {}};
    for (PluginIndex plugin = 0; plugin < boot.plugins.size(); ++plugin) {
        if (boot.plugins[plugin].Runs() && !plan.depths[plugin]) {
            plan.waitForEver.push_back(boot.plugins[plugin].Name());
        }
    }
    return plan;
}

void WriteJson(const Boot& boot, const Plan& plan, std::ostream& output) {
    const auto known = [&](Microseconds time) {
        return plan.hasTimes ? Json(time) : Json(nullptr);
    };
    Json answer = Answer("plan");
    answer["threads"] = plan.threads;
    answer["makespan_us"] = known(plan.forecast.makespan);
    Json& steps = answer["steps"] = Json::array();
    for (const ForecastStep& step : plan.forecast.steps) {
        steps.push_back({{"plugin", boot.plugins[step.plugin].Name()},
                         {"kind", OrNull(KindOf(boot.plugins[step.plugin]))},
                         {"depth", OrNull(plan.depths[step.plugin])},
                         {"waits_for", RequiredBarriers(boot, step.plugin)},
                         {"start_us", known(step.start)},
                         {"end_us", known(step.end)}});
    }
    answer["wait_for_ever"] = plan.waitForEver;
    Print(answer, output);
}

void WriteText(const Boot& boot, const Plan& plan, const Palette& palette, std::ostream& output) {
    using enum Table::Align;
    std::vector<Table::Column> columns{{"depth", Right}, {"kind"}, {"plugin"}, {"waits for"}};
    if (plan.hasTimes) {
        columns.insert(columns.begin(), {{"start", Right}, {"duration", Right}});
    }
    Table table(std::move(columns));
    for (const ForecastStep& step : plan.forecast.steps) {
        std::vector<std::string> cells;
        if (plan.hasTimes) {
            cells = {ShownDuration(step.start), ShownDuration(step.end - step.start)};
        }
        cells.push_back(std::to_string(plan.depths[step.plugin].value_or(0)));
        cells.push_back(KindOf(boot.plugins[step.plugin]).value_or("-"));
        cells.push_back(Shown(boot.plugins[step.plugin].Name()));
        cells.push_back(Listed(RequiredBarriers(boot, step.plugin)));
        table.Add(std::move(cells));
    }
    table.Print(output, palette);
    output << Counted(plan.forecast.steps.size(), "plugin") << ", " << Counted(plan.threads, "thread");
    if (plan.hasTimes) {
        output << ": the last plugin would end at " << ShownDuration(plan.forecast.makespan);
    }
    output << '\n';
    if (!plan.waitForEver.empty()) {
        output << palette.Paint(Colour::Red, "These wait for ever: " + Listed(plan.waitForEver)) << '\n';
    }
}

int Run(const Question& question, const std::optional<std::size_t>& threads) {
    RequireFormat(question, "plan", {Format::Text, Format::Json});
    const Boot boot = ReadBoot(question.options.input, std::cerr);
    const Plan plan = MakePlan(boot, question.options.input.isParallel, threads);
    if (question.options.output.format == Format::Json) {
        WriteJson(boot, plan, question.output);
    } else {
        WriteText(boot, plan, Palette(question.options.output.colours), question.output);
    }
    return kFine;
}

}  // namespace

Command DeclarePlan(CLI::App& part) {
    const auto threads = std::make_shared<std::optional<std::size_t>>();
    AddThreadsOption(part, *threads);
    return [threads](const Question& question) {
        return Run(question, *threads);
    };
}

}  // namespace lofter::analyze
