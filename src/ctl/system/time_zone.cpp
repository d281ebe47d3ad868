#include "ctl/system/time_zone.h"

#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "ctl/system/files.h"
#include "ctl/system/processes.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>
#include <sstream>

namespace kest::ctl {

namespace {

constexpr const char *kLocalTimeFile = "/etc/localtime";
constexpr const char *kZoneDirectory = "/usr/share/zoneinfo/";

void SetZone(const std::string &zone) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
    ForgetLocalTimes();
}

// Naming the file avoids a check of it at each conversion. A system without one uses UTC.
std::string ZoneOfFile(const std::string &file) {
    return ReadFile(file).empty() ? "UTC0" : ":" + file;
}

// The variable in the environment of a process; nothing if it has none or cannot be read.
std::optional<std::string> VariableOf(pid_t pid, const std::string &name) {
    std::istringstream stream(ReadFile("/proc/" + std::to_string(pid) + "/environ"));
    for (std::string entry; std::getline(stream, entry, '\0');)
        if (entry.compare(0, name.size() + 1, name + "=") == 0)
            return entry.substr(name.size() + 1);
    return std::nullopt;
}

std::string ZoneOfDaemon(pid_t pid) {
    if (const auto zone = VariableOf(pid, "TZ"))
        return zone->empty() ? "UTC0" : *zone;
    const std::string inItsRoot = "/proc/" + std::to_string(pid) + "/root" + kLocalTimeFile;
    return ZoneOfFile(ReadFile(inItsRoot).empty() ? kLocalTimeFile : inItsRoot);
}

// A name and an offset, such as "CET-1CEST".
bool IsZoneRule(const std::string &zone) {
    std::size_t letters = 0;
    while (letters < zone.size() && std::isalpha(static_cast<unsigned char>(zone[letters])) != 0)
        ++letters;
    return letters >= 3 && letters < zone.size() &&
           std::string("+-0123456789").find(zone[letters]) != std::string::npos;
}

// Empty if there is no such zone.
std::string ZoneNamed(const Appliance &appliance, const std::string &name) {
    const bool isRelative = name.front() != '/' && name.find("..") == std::string::npos;
    const std::string file = appliance.Locate(kZoneDirectory + name);
    if (isRelative && !ReadFile(file).empty())
        return ":" + file;
    return IsZoneRule(name) ? name : "";
}

// The offsets from UTC now and half a year from now.
std::array<long, 2> OffsetsIn(const std::string &zone) {
    constexpr std::time_t halfYear = std::time_t{182} * 24 * 3600;
    SetZone(zone);
    std::array<long, 2> offsets{};
    std::time_t time = std::time(nullptr);
    for (long &offset : offsets) {
        std::tm local{};
        localtime_r(&time, &local);
        offset = local.tm_gmtoff;
        time += halfYear;
    }
    return offsets;
}

void WarnOfOtherZone(const std::string &callers, const std::string &zone) {
    if (OffsetsIn(callers) != OffsetsIn(zone))
        std::cerr << "kestcronctl: times are those of the time zone of kestcrond, not of TZ="
                  << Shown(callers) << "; choose another one with --tz\n";
}

} // namespace

void UseTimeZoneOf(const Appliance &appliance, const std::string &chosen) {
    const char *const variable = std::getenv("TZ");
    const std::string callers = variable == nullptr ? "" : variable;
    std::string zone;
    if (!chosen.empty()) {
        zone = ZoneNamed(appliance, chosen);
        if (zone.empty())
            throw Failure("\"" + chosen +
                          "\" is not a known time zone; expected: a name such as Europe/Berlin");
    } else {
        const pid_t daemon = appliance.IsLocal() ? FindDaemonProcess() : 0;
        zone = daemon != 0 ? ZoneOfDaemon(daemon) : ZoneOfFile(appliance.Locate(kLocalTimeFile));
        if (!callers.empty() && appliance.IsLocal())
            WarnOfOtherZone(callers, zone);
    }
    SetZone(zone);
}

} // namespace kest::ctl
