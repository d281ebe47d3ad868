// What the fuzz targets have in common: how an input becomes a document, and what must hold for
// every document and every job, wherever it comes from.

#ifndef TESTS_FUZZ_SUPPORT_CHECKS_H
#define TESTS_FUZZ_SUPPORT_CHECKS_H

#include "job/cronjob.h"
#include "platform/json_file.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <json/value.h>
#include <string>
#include <string_view>

namespace kest {

// Ends the program, which the fuzzer takes for a crash, unless `holds`; `what` says what should.
void Require(bool holds, const char *what);

// The input as text, on a machine that is as before every input.
std::string_view StartInput(const std::uint8_t *data, std::size_t size);

// Makes `text` the content of a file in memory, the same one each time, and returns its path.
const std::string &WriteInput(std::string_view text);

// Whether every text in a document with this text is certainly UTF-8, and so comes back as it was.
bool IsPlain(std::string_view text);

// Reads `text` as the daemon reads a file with that content. What was read must come back the same
// when it is written and read again; what was not must leave nothing behind. Texts that are not
// UTF-8 are given as they come back.
bool ReadDocument(std::string_view text, const JsonLimits &limits, Json::Value &document);

// The values that a field has, in the order of FieldKeys().
struct Bounds {
    std::int32_t lowest;
    std::int32_t highest;
    std::int32_t highestDrawn;
};
constexpr std::array<Bounds, 5> kFieldBounds{
    {{0, 59, 59}, {0, 23, 23}, {1, 31, 28}, {1, 12, 12}, {0, 6, 6}}};

// Does with the job everything the daemon does short of staging and launching it, and requires that
// the results are right. Leaves it with another schedule. One that is not valid only shows what it
// holds.
void TryJob(CronJob &job);

} // namespace kest

#endif
