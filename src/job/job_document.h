// A job's document as packed text: phrases that most documents contain take one byte. It takes a
// tenth of the memory of its JSON value.

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

// The members that change during the life of a job. They are kept as typed values beside the
// document; its text has places for them.
enum class ChangingMember : unsigned char { ExpireTime, LastExecution, Schedule };
constexpr std::array<const char *, 3> kChangingMembers{"expireTime", "lastExecution", "schedule"};

// The text of the member up to its value.
std::string_view BeginningOf(ChangingMember member);

// The rest of the document.
class JobDocument {
public:
    // Nothing.
    JobDocument() = default;

    // Packs `document`, an object with a member "config". Keeps it as a JSON value when it is
    // anything else, has changing members, is long, or contains strings that JSON text would not
    // preserve.
    explicit JobDocument(Json::Value document);

    // Returns the document as it was.
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

    // Whether both documents are packed and the texts of "config" are equal. When false, the values
    // may still be equal.
    bool HasConfigOf(const JobDocument &other) const;

    // Appends the document to `text`, where it is the value of a member of "jobs". When the
    // document is packed, `appendMember` is called for each changing member and appends its name
    // and value, or nothing.
    template <typename AppendMember>
    void AppendTo(JsonText &text, AppendMember appendMember) const {
        if (value_) {
            text.Append(*value_);
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

    SharedText text_; // of the members; empty when value_ is used
    std::uint32_t configBegin_ = 0;
    std::uint32_t configEnd_ = 0;
    std::shared_ptr<const Json::Value> value_; // shared by copies of the object
};

} // namespace kest

#endif
