#include "job/job_document.h"

#include "base/errno_guard.h"
#include "base/json_members.h"
#include "platform/json_file.h"

#include <algorithm>

namespace kest {

namespace {

// The depth of a job's document inside the runtime document.
constexpr std::size_t kDepth = 2;

// Longer documents are kept as JSON values.
constexpr std::size_t kLongestText = std::size_t{64} << 10;

// The phrases that single bytes of a packed text stand for. These bytes do not occur in JSON text.
struct Phrase {
    char code;
    std::string_view text;
};

constexpr std::array<Phrase, 25> kPhrases{{
    {'\x01', ",\n\t\t\t\"expireTime\" : "},
    {'\x02', ",\n\t\t\t\"lastExecution\" : "},
    {'\x03', ",\n\t\t\t\"schedule\" : "},
    {'\x04', "\n\t\t\t\"cmd_list\" : [ \"/tmp/kestcrond/"},
    {'\x05', ",\n\t\t\t\"cmd_str\" : \""},
    {'\x06', ",\n\t\t\t\"config\" : "},
    {'\x07', "\n\t\t\t{\n\t\t\t\t\"assure_execute\" : 0,"
             "\n\t\t\t\t\"assure_execute_action\" : \"wait\""},
    {'\x08', "\n\t\t\t{\n\t\t\t\t\"assure_execute\" : "},
    {'\x0b', ",\n\t\t\t\t\"assure_execute_action\" : \""},
    {'\x0c', ",\n\t\t\t\t\"cmd\" : \""},
    {'\x0e', ",\n\t\t\t\t\"cmd_list\" : [ \""},
    {'\x0f', ",\n\t\t\t\t\"crontab\" : \""},
    {'\x10', ",\n\t\t\t\t\"name\" : \""},
    {'\x11', ",\n\t\t\t\t\"package_username\" : \""},
    {'\x12', ",\n\t\t\t\t\"period\" : \"crontab\""},
    {'\x13', ",\n\t\t\t\t\"period\" : \""},
    {'\x14', ",\n\t\t\t\t\"run_on_passive\" : false"},
    {'\x15', ",\n\t\t\t\t\"run_on_passive\" : true"},
    {'\x16', ",\n\t\t\t\t\"user\" : \"root\"\n\t\t\t}"},
    {'\x17', ",\n\t\t\t\t\"user\" : \"package\"\n\t\t\t}"},
    {'\x18', ",\n\t\t\t\t\"user\" : \""},
    {'\x19', ",\n\t\t\t\"startup\" : "},
    {'\x1a', ",\n\t\t\t\t\""},
    {'\x1b', "\n\t\t\t\t\""},
    {'\x1c', "\n\t\t\t}"},
}};

bool BeginsPhrase(char character) {
    return character == ',' || character == '\n';
}

// The first phrase that `text` begins with; null when there is none.
const Phrase *PhraseAt(std::string_view text) {
    if (!BeginsPhrase(text.front()))
        return nullptr;
    const auto *const found =
        std::find_if(kPhrases.begin(), kPhrases.end(), [&](const Phrase &one) {
            const std::size_t size = one.text.size();
            // Most phrases differ in the character that is compared first.
            return text.size() >= size && text[size - 1] == one.text.back() &&
                   text.substr(0, size) == one.text;
        });
    return found == kPhrases.end() ? nullptr : found;
}

void AppendPacked(std::string &packed, std::string_view text) {
    while (!text.empty()) {
        if (const Phrase *phrase = PhraseAt(text)) {
            packed += phrase->code;
            text.remove_prefix(phrase->text.size());
            continue;
        }
        const auto size = static_cast<std::size_t>(
            std::find_if(text.begin() + 1, text.end(), BeginsPhrase) - text.begin());
        packed += text.substr(0, size);
        text.remove_prefix(size);
    }
}

// Indexed by the code of a phrase; empty for other bytes.
constexpr auto kPhraseOf = [] {
    std::array<std::string_view, 32> phrases{};
    for (const Phrase &phrase : kPhrases)
        phrases[static_cast<unsigned char>(phrase.code)] = phrase.text;
    return phrases;
}();

bool IsCode(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < kPhraseOf.size() && !kPhraseOf[code].empty();
}

// Cheaper than IsCode(), and true for line breaks and tabs too.
bool MayBeCode(char character) {
    return static_cast<unsigned char>(character) < kPhraseOf.size();
}

std::string Unpacked(std::string_view packed) {
    std::string text;
    for (const char character : packed) {
        if (IsCode(character))
            text += kPhraseOf[static_cast<unsigned char>(character)];
        else
            text += character;
    }
    return text;
}

Json::Value Parsed(const std::string &text) {
    const ErrnoGuard errnoGuard; // parsing a number may set it
    JsonOrigin origin;
    origin.text = text;
    Json::Value value;
    JsonFromText(origin, kOwnFileLimits.depth, value);
    return value;
}

} // namespace

std::string_view BeginningOf(ChangingMember member) {
    return kPhrases.at(static_cast<std::size_t>(member)).text;
}

JobDocument::JobDocument(Json::Value document) {
    const bool hasPlaces =
        document.isObject() && document.isMember("config") &&
        std::none_of(kChangingMembers.begin(), kChangingMembers.end(),
                     [&](const char *member) { return document.isMember(member); });
    if (hasPlaces && Pack(document))
        return;
    text_ = {};
    value_ = std::make_shared<const Json::Value>(std::move(document));
}

// Returns whether the text preserves the document and is short enough: deep inside lists, a
// character may take a line of many blanks. Bytes that are not UTF-8 are lost, because they become
// an escape like other characters.
bool JobDocument::Pack(const Json::Value &document) {
    JsonText text(kLongestText, kDepth);
    text.BeginObject();
    text.ForgetPart();
    std::string packed;
    std::size_t change = 0; // the next changing member
    bool isShort = true;
    bool isPlain = true;
    const auto pack = [&] {
        isShort = isShort && packed.size() + text.Size() <= kLongestText;
        isPlain = isPlain && text.Part().find("\\u") == std::string::npos;
        if (isShort)
            AppendPacked(packed, text.Part());
        text.ForgetPart();
        return static_cast<std::uint32_t>(packed.size());
    };
    for (auto member = document.begin(); isShort && member != document.end(); ++member) {
        const char *end = nullptr;
        const char *begin = member.memberName(&end);
        const std::string_view name(begin, static_cast<std::size_t>(end - begin));
        while (change < kChangingMembers.size() && kChangingMembers.at(change) < name)
            packed += kPhrases.at(change++).code;
        text.Name(name);
        configBegin_ = name == "config" ? pack() : configBegin_;
        text.Append(*member);
        const std::uint32_t packedEnd = pack();
        configEnd_ = name == "config" ? packedEnd : configEnd_;
    }
    while (change < kChangingMembers.size())
        packed += kPhrases.at(change++).code;
    text_ = SharedText(packed);
    return isShort && (isPlain || ToJson() == document);
}

const ChangingMember *JobDocument::AppendUntilChange(std::string_view &rest, JsonText &text) {
    static constexpr std::array<ChangingMember, 3> changes{
        ChangingMember::ExpireTime, ChangingMember::LastExecution, ChangingMember::Schedule};
    while (!rest.empty()) {
        const auto code = static_cast<unsigned char>(rest.front());
        if (code >= 1 && code <= changes.size()) {
            rest.remove_prefix(1);
            return &changes[code - 1U];
        }
        if (IsCode(rest.front())) {
            text.AppendMembers(kPhraseOf[code]);
            rest.remove_prefix(1);
            continue;
        }
        const auto *const end = std::find_if(rest.begin() + 1, rest.end(), MayBeCode);
        const auto size = static_cast<std::size_t>(end - rest.begin());
        text.AppendMembers(rest.substr(0, size));
        rest.remove_prefix(size);
    }
    return nullptr;
}

Json::Value JobDocument::ToJson() const {
    if (!IsText())
        return value_ ? *value_ : Json::Value();
    JsonText text;
    AppendTo(text);
    return Parsed(text.Take());
}

Json::Value JobDocument::Config() const {
    return IsText() ? Parsed(Unpacked(ConfigText())) : Member(ToJson(), "config");
}

bool JobDocument::HasConfigOf(const JobDocument &other) const {
    return IsText() && other.IsText() && ConfigText() == other.ConfigText();
}

} // namespace kest
