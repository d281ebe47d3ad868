// The time of the simulation in microseconds since its beginning, and the date of each minute.

#ifndef BENCH_FLEET_CALENDAR_H
#define BENCH_FLEET_CALENDAR_H

#include "job/cron_field.h"
#include "job/schedule.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace kest {

using Micros = std::int64_t;
constexpr Micros kSecond = 1'000'000;
constexpr Micros kMinute = 60 * kSecond;
constexpr Micros kHour = 60 * kMinute;
constexpr Micros kDay = 24 * kHour;

constexpr std::size_t kFields = 5;
using FieldSet = std::bitset<kFields>;

inline std::tm UtcOf(std::time_t moment) {
    std::tm utc{};
    gmtime_r(&moment, &utc);
    return utc;
}

// The fields that are redrawn in the minute `utc`, by their index in FieldKeys().
inline FieldSet RedrawnIn(const std::tm &utc) {
    FieldSet fields;
    for (const std::string &key : FieldsToRedraw(utc)) {
        const auto *place = std::find(FieldKeys().begin(), FieldKeys().end(), key);
        fields.set(static_cast<std::size_t>(place - FieldKeys().begin()));
    }
    return fields;
}

// All minutes of a simulation, computed once, because each machine uses them.
class Calendar {
public:
    struct Minute {
        std::array<std::int32_t, kFields> fields{};
        FieldSet redrawn;
    };

    // `begin` is a full minute, in seconds since the epoch.
    Calendar(std::time_t begin, Micros length) : begin_(begin) {
        for (std::time_t i = 0; i <= length / kMinute; ++i) {
            const std::tm utc = UtcOf(begin + 60 * i);
            minutes_.push_back({FieldsOf(utc), RedrawnIn(utc)});
        }
    }
    std::time_t Begin() const { return begin_; }
    Micros Length() const { return static_cast<Micros>(minutes_.size() - 1) * kMinute; }
    const Minute &At(Micros time) const {
        return minutes_[static_cast<std::size_t>(time / kMinute)];
    }

private:
    std::time_t begin_;
    std::vector<Minute> minutes_;
};

} // namespace kest

#endif
