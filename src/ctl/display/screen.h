// What the output looks like, and on what it is shown.

#ifndef CTL_DISPLAY_SCREEN_H
#define CTL_DISPLAY_SCREEN_H

#include <cstddef>
#include <string>
#include <vector>

namespace kest::ctl {

struct Screen {
    std::size_t width = 0; // columns; 0: no terminal, lines may be of any length
    bool colour = false;
    bool utf8 = false; // otherwise ASCII is all that can be shown
};

// The screen that standard output is. Colour only on a terminal that has it, and not when NO_COLOR
// is set.
Screen DetectScreen();

enum class Colour { None, Bold, Dim, Red, Green, Yellow };

// `text` in that colour, as it is on a screen without.
std::string Coloured(const Screen &screen, Colour colour, const std::string &text);

// The number of columns that `text` takes: its characters.
std::size_t WidthOf(const std::string &text);

// `text`, cut to `width` columns, with a sign that something is missing.
std::string Fitted(const Screen &screen, const std::string &text, std::size_t width);

// `text` behind `indent` columns that are taken already, broken at blanks into lines that fit, the
// further ones indented as far.
std::string Wrapped(const Screen &screen, const std::string &text, std::size_t indent);

// `text` and blanks up to `width` columns.
std::string Padded(const std::string &text, std::size_t width);

// Rows of texts in columns. Control characters are shown as escapes.
class Table {
public:
    // `dispensable` are columns that are cut, and then left out, one after another, where the table
    // is too wide for the screen.
    explicit Table(std::vector<std::string> header, std::vector<std::size_t> dispensable = {});

    // As many texts as the header has. The colour is that of the row's last text.
    void Add(std::vector<std::string> row, Colour colour = Colour::None);

    // The table as text. Where it is still too wide for the screen, the widest columns are cut.
    std::string Show(const Screen &screen) const;

private:
    struct Row {
        std::vector<std::string> cells;
        Colour colour;
    };
    // The width of each column; 0 for one that is left out.
    std::vector<std::size_t> WidthsFor(const Screen &screen) const;
    std::vector<Row> rows_; // the header first
    std::vector<std::size_t> dispensable_;
};

} // namespace kest::ctl

#endif
