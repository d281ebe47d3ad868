// JSON documents as files: what the platform's build of the JSON library adds to it.

#ifndef PLATFORM_JSON_FILE_H
#define PLATFORM_JSON_FILE_H

#include <cstddef>
#include <functional>
#include <json/value.h>
#include <limits>
#include <string>
#include <string_view>

// How much of a file a reader is willing to take.
struct JsonLimits {
    std::size_t bytes;
    int depth; // values inside one another, the innermost one included
};

// Job files are written by package authors.
constexpr JsonLimits kJobFileLimits{std::size_t{1} << 20, 64};
// Our own documents hold what was accepted, however much that is, a few levels deeper than in its
// file: what we have written we can always read again.
constexpr JsonLimits kOwnFileLimits{std::numeric_limits<std::size_t>::max(), 128};

// What a document was read from.
struct JsonOrigin {
    std::string text;  // the file's, as far as it was read; values tell their offsets in it
    std::string fault; // what the parser says of a file that holds no document
};

// Reads the JSON document in the file `path`, symbolic links followed, comments dropped. Returns
// false, with `value` null and errno telling why, for anything but a regular file within `limits`
// that holds exactly one document (EBADMSG when it does not). Never blocks, never throws for what a
// file holds, and never opens a device. `origin`, when given, is filled in either case.
bool JsonFromFile(const std::string &path, Json::Value &value, const JsonLimits &limits,
                  JsonOrigin *origin = nullptr);

// The same for a text that was read before, `origin.text`, which keeps to its limit in bytes.
bool JsonFromText(JsonOrigin &origin, int depth, Json::Value &value);

// How hard a document must be to lose.
enum class Durability {
    Process, // outlives the program
    Reboot   // flushed to the disk before the call returns
};

// Takes the parts of a text in their order.
using JsonSink = std::function<void(std::string_view part)>;

// Writes a document, which `write` hands over in parts, and a newline to the file `path`, links
// followed, so that a reader finds the old document or the new one, never a part. A file that
// exists keeps its owner, group and mode, a new one gets 0644. A file that can be written but not
// replaced, such as a mount point or one in a read-only directory, is written over in place, and
// then a reader may find a part. On failure returns false with errno set, and the old document
// stays; anything but a regular file is never written to. `write` may be called more than once,
// and gives the same each time.
bool JsonToFile(const std::function<void(const JsonSink &sink)> &write, const std::string &path,
                Durability durability);

// The same of a text that is there as a whole.
inline bool JsonToFile(const std::string &text, const std::string &path, Durability durability) {
    return JsonToFile([&](const JsonSink &sink) { sink(text); }, path, durability);
}

#endif
