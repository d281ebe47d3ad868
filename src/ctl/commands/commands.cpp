#include "ctl/commands/commands.h"

#include "base/json_text.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"

#include <fnmatch.h>
#include <iostream>
#include <json/writer.h>

namespace kest::ctl {

bool MatchesPattern(const std::string &pattern, const std::string &name) {
    if (pattern.find_first_of("*?[") == std::string::npos)
        return name.find(pattern) != std::string::npos;
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

const LiveJob &JobArgument(const Context &context, const Runtime &runtime,
                           const std::string &name) {
    try {
        return FindJob(runtime, name);
    } catch (const Failure &) {
        try {
            TellWhyNotLoaded(context, name);
        } catch (const Failure &) { // what matters is that there is no such job
        }
        throw;
    }
}

std::time_t TimeArgument(const Context &context, const std::string &text) {
    constexpr std::time_t yearTenThousand = 253402300800;
    const std::optional<std::time_t> time =
        text.empty() ? context.now : ReadTime(text, context.now);
    if (!time || *time < -yearTenThousand || *time >= yearTenThousand)
        throw Failure("\"" + text +
                      "\" is no time; write 2026-11-15 03:00, 03:00, yesterday, 2h "
                      "(ago) or +2h");
    return *time;
}

void PrintCaveats(const Runtime &runtime, const Daemon &daemon, const Context &context) {
    if (context.appliance.IsThisOne() && !daemon.Runs())
        std::cerr << "kestcronctl: kestcrond does not run: nothing starts by itself; this is from "
                  << runtime.path << " of " << WhenInWords(runtime.saved, context.now) << "\n";
    for (const std::string &name : runtime.corrupt)
        std::cerr << "kestcronctl: " << runtime.path << ": \"" << Shown(name)
                  << "\" is not a valid job\n";
}

void TellWhatWaits(const Daemon &daemon) {
    if (daemon.held)
        std::cerr << "kestcronctl: the machine is held: only overdue jobs with "
                     "\"assure_execute_action\" \"run\" start until it is not\n";
    if (daemon.delayed != 0)
        std::cerr << "kestcronctl: " << daemon.delayed
                  << (daemon.delayed == 1 ? " job is" : " jobs are")
                  << " launched and waiting for their turn, and in no log yet\n";
}

void WriteJson(const Json::Value &document) {
    std::cout << ValidUtf8(JsonToString(document)) << "\n";
}

void WriteJsonLine(const Json::Value &document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    std::cout << ValidUtf8(Json::writeString(builder, document)) << "\n";
}

} // namespace kest::ctl
