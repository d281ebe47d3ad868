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

std::size_t TerminalWidth() {
    constexpr std::size_t usual = 80;
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1 || size.ws_col == 0)
        return usual;
    return size.ws_col;
}

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
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
        screen.width = TerminalWidth();
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
    return text.size() -
           static_cast<std::size_t>(std::count_if(text.begin(), text.end(), IsContinuation));
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

std::string Wrapped(const Screen &screen, const std::string &text, std::size_t indent) {
    std::string wrapped;
    std::size_t column = indent;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ' ');) {
        const std::size_t width = WidthOf(word);
        if (column == indent) {
            column += width;
        } else if (screen.width != 0 && column + 1 + width > screen.width) {
            wrapped += "\n" + std::string(indent, ' ');
            column = indent + width;
        } else {
            wrapped += " ";
            column += 1 + width;
        }
        wrapped += word;
    }
    return wrapped;
}

std::string Padded(const std::string &text, std::size_t width) {
    const std::size_t taken = WidthOf(text);
    return taken < width ? text + std::string(width - taken, ' ') : text;
}

Table::Table(std::vector<std::string> header, std::vector<std::size_t> dispensable)
    : dispensable_(std::move(dispensable)),
      names_(static_cast<std::size_t>(std::find(header.begin(), header.end(), "JOB") -
                                      header.begin())) {
    Add(std::move(header), Colour::None);
}

void Table::Add(std::vector<std::string> row, Colour colour) {
    for (std::string &cell : row)
        cell = Shown(cell);
    rows_.push_back({std::move(row), colour});
}

std::vector<std::size_t> Table::WidthsFor(const Screen &screen) const {
    std::vector<std::size_t> widths(rows_.front().cells.size());
    for (const Row &row : rows_)
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], WidthOf(row.cells[i]));
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
        if (*widest <= narrowest)
            break;
        --*widest;
    }
    return widths;
}

std::string Table::Show(const Screen &screen) const {
    const std::vector<std::size_t> widths = WidthsFor(screen);
    std::string text;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        const Row &row = rows_[i];
        std::string line;
        for (std::size_t j = 0; j < widths.size(); ++j) {
            if (widths[j] == 0)
                continue;
            const bool last = j + 1 == widths.size();
            const std::string cell = j == names_ ? FittedName(screen, row.cells[j], widths[j])
                                                 : Fitted(screen, row.cells[j], widths[j]);
            line += last ? Coloured(screen, row.colour, cell) : Padded(cell, widths[j] + kGap);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += (i == 0 ? Coloured(screen, Colour::Bold, line) : line) + "\n";
    }
    return text;
}

} // namespace kest::ctl
