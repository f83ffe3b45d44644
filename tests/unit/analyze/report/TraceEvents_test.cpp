#include "report/TraceEvents.h"

#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/TestBoot.h"

namespace lofter::analyze {
namespace {

using nlohmann::json;
using test::BootOf;

json EventsOf(const Boot& boot) {
    std::ostringstream output;
    WriteTraceEvents(boot, FindCourse(boot), output);
    return json::parse(output.str()).at("traceEvents");
}

// The events of a phase, in their order.
std::vector<json> Phase(const json& events, const std::string& phase) {
    std::vector<json> found;
    for (const json& event : events) {
        if (event.at("ph") == phase) {
            found.push_back(event);
        }
    }
    return found;
}

TEST(TraceEvents, EachPluginIsAnEventInItsLane) {
    const std::vector<json> plugins = Phase(EventsOf(BootOf("hw: provides disk ran 100 300\n"
                                                            "net: requires disk ran 320 350\n"
                                                            "ntp: ran 150 160")),
                                            "X");
    ASSERT_EQ(plugins.size(), 3U);
    EXPECT_EQ(plugins[0],
              json::parse(R"({"name":"hw","cat":"plugin,critical","ph":"X","ts":100,"dur":200,"pid":1,"tid":1,
        "args":{"start_us":100,"duration_us":200,"ready_us":0,"wait_us":100,"waited_for":null,"opened_by":null,
        "critical":true}})"));
    EXPECT_EQ(plugins[1],
              json::parse(R"({"name":"net","cat":"plugin,critical","ph":"X","ts":320,"dur":30,"pid":1,"tid":1,
        "args":{"start_us":320,"duration_us":30,"ready_us":300,"wait_us":20,"waited_for":"disk","opened_by":"hw",
        "critical":true}})"));
    EXPECT_EQ(plugins[2], json::parse(R"({"name":"ntp","cat":"plugin","ph":"X","ts":150,"dur":10,"pid":1,"tid":2,
        "args":{"start_us":150,"duration_us":10,"ready_us":0,"wait_us":150,"waited_for":null,"opened_by":null,
        "critical":false}})"));
}

TEST(TraceEvents, LanesAreNamed) {
    const std::vector<json> names = Phase(EventsOf(BootOf("a: ran 0 10\nb: ran 5 15")), "M");
    ASSERT_EQ(names.size(), 3U);
    EXPECT_EQ(names[0].at("args").at("name"), "boot");
    EXPECT_EQ(names[1], json::parse(R"({"name":"thread_name","ph":"M","pid":1,"tid":1,"args":{"name":"thread 1"}})"));
    EXPECT_EQ(names[2], json::parse(R"({"name":"thread_name","ph":"M","pid":1,"tid":2,"args":{"name":"thread 2"}})"));
}

TEST(TraceEvents, ArrowsGoAlongTheCriticalChain) {
    const json events = EventsOf(BootOf("a: provides x ran 0 10\nb: requires x ran 12 40\nc: ran 10 11"));
    EXPECT_EQ(Phase(events, "s"),
              std::vector{
                  json::parse(R"({"name":"critical chain","cat":"critical","ph":"s","id":1,"ts":9,"pid":1,"tid":1})")});
    EXPECT_EQ(Phase(events, "f"),
              std::vector{json::parse(
                  R"({"name":"critical chain","cat":"critical","ph":"f","id":1,"ts":12,"pid":1,"tid":1,"bp":"e"})")});
}

TEST(TraceEvents, APluginThatTheOperatorSkippedIsAnInstant) {
    const std::vector<json> instants = Phase(EventsOf(BootOf("a: ran 0 10\ns: began 12")), "i");
    ASSERT_EQ(instants.size(), 1U);
    EXPECT_EQ(instants[0].at("name"), "s");
    EXPECT_EQ(instants[0].at("s"), "t");
    EXPECT_TRUE(instants[0].at("args").at("duration_us").is_null());
    EXPECT_FALSE(instants[0].contains("dur"));
}

TEST(TraceEvents, TimesCountFromTheFirstStartWhenThatIsBeforeLofter) {
    const std::vector<json> plugins = Phase(EventsOf(BootOf("a: ran -30 -10\nb: ran -10 5")), "X");
    ASSERT_EQ(plugins.size(), 2U);
    EXPECT_EQ(plugins[0].at("ts"), 0);
    EXPECT_EQ(plugins[1].at("ts"), 20);
    EXPECT_EQ(plugins[0].at("args").at("start_us"), -30);
}

TEST(TraceEvents, NamesMayBeAnything) {
    const std::vector<json> plugins = Phase(EventsOf(BootOf("\"\\\x01\xff: ran 0 10")), "X");
    ASSERT_EQ(plugins.size(), 1U);
    EXPECT_EQ(plugins[0].at("name"), "\"\\\x01\xef\xbf\xbd");
}

}  // namespace
}  // namespace lofter::analyze
