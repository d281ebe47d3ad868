// Output for terminals and pipes: colours, widths, tables.

#ifndef CTL_DISPLAY_SCREEN_H
#define CTL_DISPLAY_SCREEN_H

#include <cstddef>
#include <string>
#include <vector>

namespace kest::ctl {

struct Screen {
    std::size_t width = 0; // columns; 0 for unlimited, without a terminal
    bool colour = false;
    bool utf8 = false;      // otherwise only ASCII
    std::size_t height = 0; // rows; 0 for unlimited
};

// The properties of standard output. Colours are used on a terminal unless it is "dumb" or NO_COLOR
// is set.
Screen DetectScreen();

enum class Colour { None, Bold, Dim, Red, Green, Yellow };

// `text` in the colour, or unchanged on a screen without colours.
std::string Coloured(const Screen &screen, Colour colour, const std::string &text);

// The width of `text` in columns, which is its number of characters. The escape sequences of
// Coloured() have none.
std::size_t WidthOf(const std::string &text);

// `text` cut to `width` columns, with an ellipsis if it was cut.
std::string Fitted(const Screen &screen, const std::string &text, std::size_t width);

// The same for the name of a job, which keeps its end: "pkg…-report".
std::string FittedName(const Screen &screen, const std::string &name, std::size_t width);

// `text` broken at blanks into lines that fit the screen. Longer words are broken too. The first
// line starts at column `indent`, and further lines are indented by it.
std::string Wrapped(const Screen &screen, const std::string &text, std::size_t indent);

// The same, with the first line at column 0.
std::string Hanging(const Screen &screen, const std::string &text, std::size_t indent);

// `text` padded with blanks to `width` columns.
std::string Padded(const std::string &text, std::size_t width);

// A table. The names in a column "JOB" keep their ends when they are cut. Control characters are
// shown as escape sequences.
class Table {
public:
    // If the table is too wide for the screen, the columns in `dispensable` are cut and then left
    // out, in this order.
    explicit Table(std::vector<std::string> header, std::vector<std::size_t> dispensable = {});

    // `row` must have as many cells as the header. The colour applies to the last cell.
    void Add(std::vector<std::string> row, Colour colour = Colour::None);

    // The table as text. If it is still too wide for the screen, the widest columns are cut.
    std::string Show(const Screen &screen) const;

    // The rows that were added since the last call, and before the first call the header. They are
    // removed. For tables whose rows are not all known at first: columns only become wider.
    std::string TakeRows(const Screen &screen);

private:
    struct Row {
        std::vector<std::string> cells;
        Colour colour;
        bool isHeader;
    };
    std::string ShowRow(const Screen &screen, const Row &row,
                        const std::vector<std::size_t> &widths) const;
    // The width of each column; 0 for one that is left out.
    std::vector<std::size_t> WidthsFor(const Screen &screen) const;

    std::vector<std::size_t> widest_; // cell of each column
    std::vector<Row> rows_;           // the header first
    std::vector<std::size_t> dispensable_;
    std::size_t names_; // the column "JOB"
};

} // namespace kest::ctl

#endif
