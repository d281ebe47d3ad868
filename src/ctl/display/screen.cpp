#include "ctl/display/screen.h"

#include "ctl/display/utf8.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <langinfo.h>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace kest::ctl {

namespace {

constexpr std::size_t kGap = 2; // columns between two columns of a table

bool IsSet(const char *variable) {
    const char *value = std::getenv(variable);
    return value != nullptr && *value != '\0';
}

bool ShowsColour() {
    const char *terminal = std::getenv("TERM");
    return !IsSet("NO_COLOR") && terminal != nullptr && std::string_view(terminal) != "dumb";
}

winsize TerminalSize() {
    constexpr unsigned short usualWidth = 80;
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1)
        size = {};
    if (size.ws_col == 0)
        size.ws_col = usualWidth;
    return size;
}

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

constexpr char kEscape = '\033';

// The end of the character at `begin`, or of the escape sequence of a colour.
std::size_t AfterCharacter(const std::string &text, std::size_t begin) {
    std::size_t end = begin + 1;
    if (text[begin] == kEscape)
        return std::min(text.find('m', end), text.size() - 1) + 1;
    while (end < text.size() && IsContinuation(text[end]))
        ++end;
    return end;
}

const char *EscapeOfColour(Colour colour) {
    switch (colour) {
    case Colour::None:
        break;
    case Colour::Bold:
        return "\033[1m";
    case Colour::Dim:
        return "\033[2m";
    case Colour::Red:
        return "\033[31m";
    case Colour::Green:
        return "\033[32m";
    case Colour::Yellow:
        return "\033[33m";
    }
    return "";
}

} // namespace

Screen DetectScreen() {
    Screen screen;
    std::setlocale(LC_CTYPE, "");
    screen.utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    if (isatty(STDOUT_FILENO) == 1) {
        const winsize size = TerminalSize();
        screen.width = size.ws_col;
        screen.height = size.ws_row;
        screen.colour = ShowsColour();
    }
    return screen;
}

std::string Coloured(const Screen &screen, Colour colour, const std::string &text) {
    if (!screen.colour || colour == Colour::None)
        return text;
    return EscapeOfColour(colour) + text + "\033[0m";
}

std::size_t WidthOf(const std::string &text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size(); i = AfterCharacter(text, i))
        width += text[i] == kEscape ? 0 : 1;
    return width;
}

std::string Fitted(const Screen &screen, const std::string &text, std::size_t width) {
    if (WidthOf(text) <= width)
        return text;
    const std::string ellipsis = screen.utf8 ? "…" : "~";
    std::string cut;
    std::size_t shown = 0;
    for (const char byte : text) {
        if (!IsContinuation(byte) && ++shown >= width)
            break;
        cut += byte;
    }
    return cut + ellipsis;
}

std::string FittedName(const Screen &screen, const std::string &name, std::size_t width) {
    if (WidthOf(name) <= width || width < 4)
        return Fitted(screen, name, width);
    const std::size_t front = width / 3;
    std::size_t cut = name.size(); // where the part that is kept begins
    for (std::size_t kept = 0; kept < width - front;)
        if (!IsContinuation(name[--cut]))
            ++kept;
    return Fitted(screen, name, front) + name.substr(cut);
}

namespace {

// Puts words into lines of `width` columns, of which the first begins at column `column`.
class Wrapping {
public:
    Wrapping(std::size_t width, std::size_t indent, std::size_t column)
        : width_(width), indent_(width != 0 && indent >= width ? 0 : indent), column_(column) {}

    void Add(const std::string &word) {
        const std::size_t width = WidthOf(word);
        if (!std::exchange(isFirst_, false)) {
            if (width_ != 0 && column_ + 1 + width > width_) {
                Break();
            } else {
                text_ += ' ';
                ++column_;
            }
        }
        if (width_ != 0 && column_ + width > width_) {
            AddInParts(word);
            return;
        }
        text_ += word;
        column_ += width;
    }

    std::string Take() { return std::move(text_); }

private:
    void Break() {
        text_.erase(text_.find_last_not_of(' ') + 1);
        text_ += '\n' + std::string(indent_, ' ');
        column_ = indent_;
    }

    void AddInParts(const std::string &word) {
        for (std::size_t i = 0, end = 0; i < word.size(); i = end) {
            end = AfterCharacter(word, i);
            const std::string character = word.substr(i, end - i);
            if (column_ + WidthOf(character) > width_)
                Break();
            text_ += character;
            column_ += WidthOf(character);
        }
    }

    std::size_t width_;
    std::size_t indent_;
    std::size_t column_;
    bool isFirst_ = true;
    std::string text_;
};

std::string WrappedFrom(const Screen &screen, const std::string &text, std::size_t indent,
                        std::size_t column) {
    Wrapping wrapping(screen.width, indent, column);
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ' ');)
        wrapping.Add(word);
    return wrapping.Take();
}

} // namespace

std::string Wrapped(const Screen &screen, const std::string &text, std::size_t indent) {
    return WrappedFrom(screen, text, indent, indent);
}

std::string Hanging(const Screen &screen, const std::string &text, std::size_t indent) {
    return WrappedFrom(screen, text, indent, 0);
}

std::string Padded(const std::string &text, std::size_t width) {
    const std::size_t taken = WidthOf(text);
    return taken < width ? text + std::string(width - taken, ' ') : text;
}

Table::Table(std::vector<std::string> header, std::vector<std::size_t> dispensable)
    : widest_(header.size()), dispensable_(std::move(dispensable)),
      names_(static_cast<std::size_t>(std::find(header.begin(), header.end(), "JOB") -
                                      header.begin())) {
    Add(std::move(header));
    rows_.front().isHeader = true;
}

void Table::Add(std::vector<std::string> row, Colour colour) {
    for (std::size_t i = 0; i < row.size(); ++i) {
        row[i] = Shown(row[i]);
        widest_[i] = std::max(widest_[i], WidthOf(row[i]));
    }
    rows_.push_back({std::move(row), colour, false});
}

std::vector<std::size_t> Table::WidthsFor(const Screen &screen) const {
    std::vector<std::size_t> widths = widest_;
    constexpr std::size_t narrowest = 10;
    std::size_t total = kGap * (widths.size() - 1);
    for (const std::size_t width : widths)
        total += width;
    if (screen.width == 0)
        return widths;
    for (const std::size_t column : dispensable_) {
        const std::size_t excess = total > screen.width ? total - screen.width : 0;
        const bool cut = widths[column] >= excess + narrowest;
        total -= cut || excess == 0 ? excess : kGap + widths[column];
        widths[column] -= cut || excess == 0 ? excess : widths[column];
    }
    for (; total > screen.width; --total) {
        const auto widest = std::max_element(widths.begin(), widths.end());
        if (*widest <= 1)
            break;
        --*widest;
    }
    return widths;
}

std::string Table::Show(const Screen &screen) const {
    const std::vector<std::size_t> widths = WidthsFor(screen);
    std::string text;
    for (const Row &row : rows_)
        text += ShowRow(screen, row, widths);
    return text;
}

std::string Table::TakeRows(const Screen &screen) {
    std::string text = Show(screen);
    rows_.clear();
    return text;
}

std::string Table::ShowRow(const Screen &screen, const Row &row,
                           const std::vector<std::size_t> &widths) const {
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        if (widths[i] == 0)
            continue;
        const bool last = i + 1 == widths.size();
        const std::string cell = i == names_ ? FittedName(screen, row.cells[i], widths[i])
                                             : Fitted(screen, row.cells[i], widths[i]);
        line += last ? Coloured(screen, row.colour, cell) : Padded(cell, widths[i] + kGap);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return (row.isHeader ? Coloured(screen, Colour::Bold, line) : line) + "\n";
}

} // namespace kest::ctl
