#include "ctl/import/classic_line.h"

#include "base/printable.h"
#include "ctl/display/utf8.h"
#include "job/cron_field.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <utility>

namespace kest::ctl {

namespace {

constexpr std::size_t kLongestLine = 8192;
constexpr const char *kLineBlanks = " \t";
constexpr std::size_t kDayIndex = 2;
constexpr std::size_t kWeekdayIndex = 4;

// Reads a line from left to right.
class LineReader {
public:
    explicit LineReader(std::string_view line) : line_(line) { SkipBlanks(); }

    std::size_t Column() const { return at_ + 1; }
    bool IsAtEnd() const { return at_ == line_.size(); }
    std::string_view Rest() const { return line_.substr(at_); }
    bool NextIs(char character) const { return !IsAtEnd() && line_[at_] == character; }

    void SkipBlanks() { at_ = std::min(line_.find_first_not_of(kLineBlanks, at_), line_.size()); }
    void Skip() { ++at_; }

    // The characters before the next blank. Skips the blanks.
    std::string Word() {
        const std::size_t end = std::min(line_.find_first_of(kLineBlanks, at_), line_.size());
        std::string word(line_.substr(at_, end - at_));
        at_ = end;
        SkipBlanks();
        return word;
    }

    // A text in quotes, or the characters before the next one of `ends`. Nothing if the second
    // quote is missing.
    std::optional<std::string> QuotedOrUntil(const char *ends) {
        const char quote = NextIs('"') ? '"' : '\'';
        if (!NextIs(quote)) {
            const std::size_t end = std::min(line_.find_first_of(ends, at_), line_.size());
            std::string text(line_.substr(at_, end - at_));
            at_ = end;
            return text;
        }
        const std::size_t end = line_.find(quote, at_ + 1);
        if (end == std::string_view::npos)
            return std::nullopt;
        std::string text(line_.substr(at_ + 1, end - at_ - 1));
        at_ = end + 1;
        return text;
    }

private:
    std::string_view line_;
    std::size_t at_ = 0;
};

// --- Variables ----------------------------------------------------------------------------------

bool IsVariableName(const std::string &name) {
    return !name.empty() && std::isdigit(static_cast<unsigned char>(name.front())) == 0 &&
           std::all_of(name.begin(), name.end(), [](unsigned char character) {
               return std::isalnum(character) != 0 || character == '_';
           });
}

// Nothing if the line is not an assignment.
std::optional<ClassicVariable> ParseVariable(LineReader reader) {
    ClassicVariable variable;
    variable.column = reader.Column();
    const std::optional<std::string> name = reader.QuotedOrUntil(" \t=");
    reader.SkipBlanks();
    if (!name || !reader.NextIs('='))
        return std::nullopt;
    variable.name = *name;
    reader.Skip();
    reader.SkipBlanks();
    const bool isQuoted = reader.NextIs('"') || reader.NextIs('\'');
    const std::optional<std::string> value = reader.QuotedOrUntil("");
    reader.SkipBlanks();
    if (!value || !reader.IsAtEnd())
        return std::nullopt;
    variable.value = *value;
    if (!isQuoted)
        variable.value.erase(variable.value.find_last_not_of(kLineBlanks) + 1);
    return variable;
}

// --- Times --------------------------------------------------------------------------------------

// Whether a word after five fields is a sixth one. A command does not look like that.
bool IsSixthField(const std::string &word) {
    const std::string numeric = "0123456789*,-/?";
    if (word.empty() || word.find_first_of("0123456789*?") == std::string::npos)
        return false;
    return word.find_first_not_of(numeric) == std::string::npos;
}

bool IsListOfWeekdays(const std::string &word) {
    ClassicField ignored = 0;
    return word.find_first_of(",-") != std::string::npos &&
           !ParseClassicField(kWeekdayIndex, word, ignored);
}

Hint FiveFields(bool userColumn) {
    return Expected(userColumn ? "five fields, an account and a command"
                               : "five fields and a command");
}

// Reads five fields into the entry. Returns the fault if they are not valid.
std::optional<LineRemark> ReadFields(LineReader &reader, bool userColumn, ClassicEntry &entry) {
    ClassicSchedule &schedule = entry.schedule;
    schedule.dayOrWeekday = true;
    std::size_t column = reader.Column();
    for (std::size_t i = 0; i < schedule.fields.size(); ++i) {
        column = reader.Column();
        if (reader.IsAtEnd())
            return LineRemark{column, "the line ends after " + std::to_string(i) + " fields",
                              FiveFields(userColumn)};
        const std::string text = reader.Word();
        if (const auto fault = ParseClassicField(i, text, schedule.fields.at(i)))
            return LineRemark{column + fault->offset, fault->message, Expected(fault->expected)};
        if ((i == kDayIndex || i == kWeekdayIndex) && text.front() == '*')
            schedule.dayOrWeekday = false;
    }
    if (IsDayWithWeekday(schedule))
        entry.remarks.push_back(
            {column, "the job starts when day and weekday match, because one of them begins with "
                     "\"*\"; some programs start it when either matches"});
    LineReader next = reader;
    const std::string word = next.Word();
    if (IsSixthField(word) || IsListOfWeekdays(word))
        return LineRemark{reader.Column(),
                          "a sixth field " + Quoted(word) +
                              ": there are no fields for seconds or years",
                          FiveFields(userColumn)};
    return std::nullopt;
}

// Reads a word such as "@daily" into the entry. Returns the fault if it has no equivalent.
std::optional<LineRemark> ReadWord(LineReader &reader, ClassicEntry &entry) {
    const std::size_t column = reader.Column();
    const std::string word = reader.Word();
    if (word == "@reboot")
        return LineRemark{column, "\"@reboot\": jobs do not start at boot",
                          Expected("a unit of the service manager")};
    const std::optional<std::string> fields = FieldsOfWord(word);
    if (!fields)
        return LineRemark{column, Quoted(word) + " is not the word for a time",
                          Expected("@yearly, @monthly, @weekly, @daily or @hourly")};
    LineReader known(*fields);
    return ReadFields(known, false, entry);
}

// --- Commands -----------------------------------------------------------------------------------

std::string InputFrom(std::string_view text) {
    std::string input;
    bool isEscaped = false;
    for (const char character : text) {
        if (isEscaped && character == '%')
            input.back() = '%';
        else
            input += character == '%' ? '\n' : character;
        isEscaped = character == '\\';
    }
    if (!input.empty() && input.back() != '\n')
        input += '\n';
    return input;
}

ClassicLine ParseEntry(LineReader reader, bool userColumn) {
    ClassicEntry entry;
    const std::size_t start = reader.Column();
    if (auto fault =
            reader.NextIs('@') ? ReadWord(reader, entry) : ReadFields(reader, userColumn, entry))
        return *fault;
    if (ExpressionsOf(entry.schedule).empty())
        return LineRemark{start, "it would never start", Expected("days that the months have")};
    entry.accountColumn = reader.Column();
    if (userColumn)
        entry.account = reader.Word();
    entry.commandColumn = reader.Column();
    const std::string_view text = reader.Rest();
    ClassicCommand command = SplitClassicCommand(text);
    if (command.command.find("\\\\") != std::string::npos)
        entry.remarks.push_back({entry.commandColumn + text.find("\\\\"),
                                 "two backslashes are kept; some programs make one of them"});
    if (command.command.empty())
        return LineRemark{entry.commandColumn, "there is no command", FiveFields(userColumn)};
    entry.command = std::move(command.command);
    entry.input = std::move(command.input);
    return entry;
}

std::optional<LineRemark> FaultOfBytes(const std::string &line) {
    if (line.size() > kLongestLine)
        return LineRemark{kLongestLine + 1, "the line is too long",
                          Expected("at most " + std::to_string(kLongestLine) + " bytes")};
    for (std::size_t i = 0; i < line.size(); ++i)
        if (line[i] != '\t' && EscapeOf(line[i])[1] != '\0')
            return LineRemark{
                i + 1, std::string("a control character \"") + EscapeOf(line[i]).data() + "\"",
                Expected("printable characters")};
    const std::string valid = ValidUtf8(line);
    if (valid == line)
        return std::nullopt;
    const auto different =
        std::mismatch(line.begin(), line.end(), valid.begin(), valid.end()).first;
    return LineRemark{static_cast<std::size_t>(different - line.begin()) + 1,
                      "the line is not UTF-8", Expected("text in UTF-8")};
}

} // namespace

ClassicCommand SplitClassicCommand(std::string_view text) {
    ClassicCommand split;
    bool isEscaped = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && !isEscaped) {
            split.input = InputFrom(text.substr(i + 1));
            break;
        }
        if (text[i] == '%')
            split.command.back() = '%'; // instead of the backslash
        else
            split.command += text[i];
        isEscaped = text[i] == '\\' && !isEscaped;
    }
    return split;
}

ClassicLine ParseClassicLine(const std::string &line, bool userColumn) {
    const LineReader reader(line);
    if (reader.IsAtEnd() || reader.NextIs('#'))
        return NoEntry{};
    if (auto fault = FaultOfBytes(line))
        return *fault;
    const std::optional<ClassicVariable> variable = ParseVariable(reader);
    if (!variable)
        return ParseEntry(reader, userColumn);
    if (!IsVariableName(variable->name))
        return LineRemark{variable->column,
                          Quoted(variable->name) + " is not the name of a variable",
                          Expected("letters, digits and \"_\"")};
    return *variable;
}

} // namespace kest::ctl
