// JSON documents in files: the additions of the platform's build of the JSON library.

#ifndef PLATFORM_JSON_FILE_H
#define PLATFORM_JSON_FILE_H

#include <cstddef>
#include <functional>
#include <json/value.h>
#include <limits>
#include <string>
#include <string_view>

// Bounds of a document that is read.
struct JsonLimits {
    std::size_t bytes;
    int depth; // nested values, including the innermost
};

// The daemon's own documents contain the accepted definitions a few levels deeper than job files
// do. Whatever was written can be read again.
constexpr JsonLimits kOwnFileLimits{std::numeric_limits<std::size_t>::max(), 128};

// The source text of a document.
struct JsonOrigin {
    std::string text;  // of the file, as far as it was read; offsets of values refer to it
    std::string fault; // the parser's message when the file is not valid JSON
};

// Reads the JSON document in the file `path`. Follows symbolic links and drops comments. Returns
// false, with `value` null and errno set, unless `path` is a regular file within `limits` with
// exactly one document (EBADMSG). Never blocks, never throws because of the content of a file, and
// never opens a device. `origin`, when given, is filled in either case.
bool JsonFromFile(const std::string &path, Json::Value &value, const JsonLimits &limits,
                  JsonOrigin *origin = nullptr);

// The same for `origin.text`, which was read before and is within its size limit.
bool JsonFromText(JsonOrigin &origin, int depth, Json::Value &value);

// What a document must survive.
enum class Durability {
    Process, // the end of the program
    Reboot   // a reboot: it is flushed to the disk before the call returns
};

// Receives the parts of a text in order.
using JsonSink = std::function<void(std::string_view part)>;

// Writes a document and a newline to the file `path`. `write` supplies the document in parts.
// Follows symbolic links. A reader finds either the old or the new document, never a part. An
// existing file keeps its owner, group and mode; a new file gets mode 0644. A file that can be
// written but not replaced, such as a mount point or a file in a read-only directory, is
// overwritten in place; a reader may then find a part. On failure, returns false with errno set and
// keeps the old document. Only regular files are written to. `write` may be called more than once
// and must supply the same document each time.
bool JsonToFile(const std::function<void(const JsonSink &sink)> &write, const std::string &path,
                Durability durability);

// The same for a complete text.
inline bool JsonToFile(const std::string &text, const std::string &path, Durability durability) {
    return JsonToFile([&](const JsonSink &sink) { sink(text); }, path, durability);
}

#endif
