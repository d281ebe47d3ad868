// A job's document at rest: as text in which what most documents share takes one byte, a tenth of
// what it takes as JSON.

#ifndef JOB_JOB_DOCUMENT_H
#define JOB_JOB_DOCUMENT_H

#include "base/json_text.h"
#include "base/shared_text.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <json/value.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace kest {

// The members that change while a job lives. They are kept as what they are, beside the document,
// and have their places in its text.
enum class ChangingMember : unsigned char { ExpireTime, LastExecution, Schedule };
constexpr std::array<const char *, 3> kChangingMembers{"expireTime", "lastExecution", "schedule"};

// The beginning of its text there, up to the value.
std::string_view BeginningOf(ChangingMember member);

// The rest of a document.
class JobDocument {
public:
    // Nothing.
    JobDocument() = default;

    // `document` is an object with a member "config", or is kept as it is. So is one that has
    // changing members, is long, or holds texts that would not come back from JSON as they are.
    explicit JobDocument(Json::Value document);

    // The document as it was.
    Json::Value ToJson() const;

    // Appends it to `text`, where it is the value of a member of "jobs".
    void AppendTo(JsonText &text) const {
        AppendTo(text, [](ChangingMember /*member*/, JsonText & /*text*/) {});
    }

    // Its member "config".
    Json::Value Config() const;

    // Whether it is kept as text.
    bool IsText() const { return !text_.IsEmpty(); }

    // What is kept as text.
    SharedText &Text() { return text_; }

    // Whether both are kept as text and "config" is the same in both. When not, it may still be the
    // same.
    bool HasConfigOf(const JobDocument &other) const;

    // Appends the document to `text`, where it is the value of a member of "jobs". When it is kept
    // as text, `appendMember` appends name and value of each changing member, or nothing.
    template <typename AppendMember>
    void AppendTo(JsonText &text, AppendMember appendMember) const {
        if (asItIs_) {
            text.Append(*asItIs_);
            return;
        }
        text.BeginObject();
        for (std::string_view rest = text_.View(); !rest.empty();)
            if (const ChangingMember *member = AppendUntilChange(rest, text))
                appendMember(*member, text);
        text.EndObject();
    }

private:
    bool Pack(const Json::Value &document);
    static const ChangingMember *AppendUntilChange(std::string_view &rest, JsonText &text);
    std::string_view ConfigText() const {
        return text_.View().substr(configBegin_, configEnd_ - configBegin_);
    }

    SharedText text_; // of the members; empty: see below
    std::uint32_t configBegin_ = 0;
    std::uint32_t configEnd_ = 0;
    std::shared_ptr<const Json::Value> asItIs_; // shared by copies of the object
};

} // namespace kest

#endif
