// The common part of the fuzz targets: reads an input as a document, and checks the properties of
// every document and every job.

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

// Ends the program, which the fuzzer reports as a crash, unless `holds`; `what` names the property.
void Require(bool holds, const char *what);

// Resets the simulated machine, and returns the input as text.
std::string_view StartInput(const std::uint8_t *data, std::size_t size);

// Writes `text` to a file in memory, which is the same for each call, and returns its path.
const std::string &WriteInput(std::string_view text);

// Whether all texts in this document are certainly UTF-8, so that a save does not change them.
bool IsPlain(std::string_view text);

// Reads `text` as the daemon reads a file with this content. Requires that an accepted document is
// unchanged after it is written and read again, and that a failed read leaves `document` null.
// Texts that are not UTF-8 are returned as they are after this.
bool ReadDocument(std::string_view text, const JsonLimits &limits, Json::Value &document);

// The bounds of each field, in the order of FieldKeys().
struct Bounds {
    std::int32_t lowest;
    std::int32_t highest;
    std::int32_t highestDrawn;
};
constexpr std::array<Bounds, 5> kFieldBounds{
    {{0, 59, 59}, {0, 23, 23}, {1, 31, 28}, {1, 12, 12}, {0, 6, 6}}};

// Does everything with the job that the daemon does except staging and launching, and checks the
// results. Changes its schedule. Only the accessors are tested for an invalid job.
void TryJob(CronJob &job);

} // namespace kest

#endif
