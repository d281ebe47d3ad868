#include "ctl/display/timeline_text.h"

#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kest::ctl {

namespace {

// What a place of the picture shows. Of two that meet in one place the later one is shown.
enum class Cell { Empty, Midnight, Band, NextBand, Bands, StartLeft, StartRight, Start, Overdue };

struct Look {
    const char *block;
    const char *ascii;
    Colour colour;
};
constexpr std::array<Look, 9> kLooks{{
    {" ", " ", Colour::None},
    {"│", "|", Colour::Dim},
    {"░", ".", Colour::Green},
    {"▒", ",", Colour::Green}, // tells a band from the one before it
    {"▓", ";", Colour::Green}, // more than one begins here
    {"▌", "#", Colour::Green}, // starts in one half of the place only
    {"▐", "#", Colour::Green},
    {"█", "#", Colour::Green},
    {"▲", "!", Colour::Yellow},
}};

constexpr std::size_t kLevels = 8; // of one line of the load
constexpr std::array<const char *, kLevels + 1> kBlockBars{" ", "▁", "▂", "▃", "▄",
                                                           "▅", "▆", "▇", "█"};
constexpr std::array<const char *, kLevels + 1> kAsciiBars{" ", ":", ":", ":", ":",
                                                           "#", "#", "#", "#"};

class TextPicture {
public:
    TextPicture(const ComingHours &hours, const Screen &screen)
        : hours_(hours), screen_(screen), marks_(ClockMarksOf(hours)), load_(LoadOf(hours)) {
        constexpr std::size_t usual = 100;
        constexpr std::size_t narrowest = 30;
        constexpr std::size_t shortest = 8;
        const std::size_t width = std::max(screen.width == 0 ? usual : screen.width, narrowest);
        std::size_t longest = shortest;
        for (const JobRow &row : hours.rows)
            longest = std::max(longest, WidthOf(Shown(row.name)));
        nameWidth_ = std::min(longest, width / 3);
        columns_ = width - nameWidth_ - 1;
        for (const JobRow &row : hours.rows)
            rows_.push_back(CellsOf(row));
    }

    std::string Show() const {
        std::string text = Line(Colour::Bold, WhenInWords(hours_.from, hours_.from) + " to " +
                                                  WhenInWords(hours_.until, hours_.from));
        if (hours_.held)
            text += Line(Colour::Yellow, "The machine is held: scheduled starts wait");
        if (hours_.rows.empty())
            text += Line(Colour::None, "No job starts in these hours");
        else
            text += Clock() + Rows() + Load() + Legend();
        if (hours_.idle != 0)
            text += Line(Colour::None, IdleInWords(hours_.idle));
        return text;
    }

private:
    using Cells = std::vector<Cell>;

    // Which of `places` the moment lies in, when they are spread over all hours.
    std::size_t PlaceOf(std::time_t time, std::size_t places) const {
        const auto whole = static_cast<std::size_t>(hours_.until - hours_.from);
        return std::min(static_cast<std::size_t>(time - hours_.from) * places / whole, places - 1);
    }
    std::size_t ColumnOf(std::time_t time) const { return PlaceOf(time, columns_); }

    std::size_t Width() const { return nameWidth_ + 1 + columns_; }

    std::string Line(Colour colour, const std::string &text) const {
        return Coloured(screen_, colour, Fitted(screen_, text, Width())) + "\n";
    }

    // A line of the picture; `name` stands before it.
    static std::string Labelled(std::string name, const std::string &picture) {
        std::string line = std::move(name) + " " + picture;
        line.erase(line.find_last_not_of(' ') + 1);
        return line + "\n";
    }
    std::string Name(const std::string &text) const {
        return Padded(Fitted(screen_, text, nameWidth_), nameWidth_);
    }

    // --- The clock ---

    // Writes a label where there is room for it.
    static void Write(std::string &labels, std::size_t column, const std::string &label) {
        const std::size_t begin = column == 0 ? 0 : column - 1; // a blank between two
        if (labels.find_first_not_of(' ', begin) > column + label.size() &&
            column + label.size() <= labels.size())
            labels.replace(column, label.size(), label);
    }

    std::string Clock() const {
        constexpr double least = 7; // columns
        const double minutes = static_cast<double>(hours_.until - hours_.from) / 60;
        const int step = MinutesBetweenLabels(static_cast<double>(columns_) / minutes, least);
        std::string labels(columns_, ' ');
        std::vector<bool> ticks(columns_);
        for (const ClockMark &mark : marks_)
            if (mark.newDay) {
                ticks[ColumnOf(mark.time)] = true;
                Write(labels, ColumnOf(mark.time), ShortDay(mark.time));
            }
        for (const ClockMark &mark : marks_)
            if (mark.minuteOfDay % step == 0) {
                ticks[ColumnOf(mark.time)] = true;
                Write(labels, ColumnOf(mark.time), ClockInWords(mark.time, mark.time));
            }
        return Labelled(Name(""), labels) + Labelled(Name(""), Axis(ticks));
    }

    std::string Axis(const std::vector<bool> &ticks) const {
        std::string axis;
        for (const bool tick : ticks)
            if (screen_.utf8)
                axis += tick ? "┬" : "─";
            else
                axis += tick ? "+" : "-";
        return Coloured(screen_, Colour::Dim, axis);
    }

    // --- The jobs ---

    static void Put(Cell &cell, Cell shown) {
        const bool halves = (cell == Cell::StartLeft && shown == Cell::StartRight) ||
                            (cell == Cell::StartRight && shown == Cell::StartLeft);
        cell = halves ? Cell::Start : std::max(cell, shown);
    }

    void PutBand(Cells &cells, const JobStart &start, Cell shown) const {
        const std::size_t first = ColumnOf(start.earliest);
        for (std::size_t i = first; i <= ColumnOf(start.latest); ++i)
            Put(cells[i], shown);
    }

    Cells CellsOf(const JobRow &row) const {
        Cells cells(columns_, Cell::Empty);
        for (const ClockMark &mark : marks_)
            if (mark.newDay)
                cells[ColumnOf(mark.time)] = Cell::Midnight;
        Cell band = Cell::NextBand;
        std::size_t lastBegin = columns_;
        for (const JobStart &start : row.starts) {
            const std::size_t column = ColumnOf(start.earliest);
            if (start.overdue) {
                Put(cells[column], Cell::Overdue);
            } else if (start.earliest == start.latest) {
                const std::size_t half = PlaceOf(start.earliest, 2 * columns_);
                Put(cells[half / 2], half % 2 == 0 ? Cell::StartLeft : Cell::StartRight);
            } else {
                band = band == Cell::Band ? Cell::NextBand : Cell::Band;
                PutBand(cells, start, band);
                if (column == std::exchange(lastBegin, column))
                    Put(cells[column], Cell::Bands);
            }
        }
        return cells;
    }

    std::string Rows() const {
        std::string text;
        for (std::size_t i = 0; i < rows_.size(); ++i)
            text += Labelled(Name(Shown(hours_.rows[i].name)), Drawn(rows_[i]));
        return text;
    }

    std::string Drawn(const Cells &cells) const {
        std::string text;
        for (std::size_t i = 0; i < cells.size();) {
            const Colour colour = LookOf(cells[i]).colour;
            std::string same;
            for (; i < cells.size() && LookOf(cells[i]).colour == colour; ++i)
                same += SignOf(cells[i]);
            text += Coloured(screen_, colour, same);
        }
        return text;
    }

    static const Look &LookOf(Cell cell) { return kLooks.at(static_cast<std::size_t>(cell)); }
    const char *SignOf(Cell cell) const {
        return screen_.utf8 ? LookOf(cell).block : LookOf(cell).ascii;
    }

    // --- The load ---

    // For each column the quarter hour with the most in it.
    std::vector<QuarterHour> LoadColumns() const {
        std::vector<QuarterHour> columns(columns_);
        for (const QuarterHour &quarter : load_) {
            const std::time_t begin = std::max(quarter.from, hours_.from);
            const std::time_t end = std::min(quarter.from + kQuarterHour, hours_.until);
            for (std::size_t i = ColumnOf(begin); i <= ColumnOf(end - 1); ++i) {
                const std::size_t most = columns[i].starts + columns[i].possible;
                if (quarter.starts + quarter.possible > most)
                    columns[i] = quarter;
            }
        }
        return columns;
    }

    std::string Load() const {
        constexpr std::size_t lines = 3;
        const std::vector<QuarterHour> columns = LoadColumns();
        const std::size_t tallest = TallestOf(load_);
        const auto levelOf = [&](std::size_t count) { // whatever is not nothing can be seen
            return (count * lines * kLevels + tallest - 1) / tallest;
        };
        std::string text;
        for (std::size_t line = lines; line-- > 0;) {
            std::string bars;
            for (const QuarterHour &column : columns)
                bars += BarOf(levelOf(column.starts), levelOf(column.starts + column.possible),
                              line * kLevels);
            const std::string scale = line == 0 ? "0" : std::to_string(tallest);
            const bool labelled = line == 0 || line + 1 == lines;
            const std::string name =
                labelled ? std::string(nameWidth_ - scale.size(), ' ') + scale : Name("load");
            text += Labelled(name, bars);
        }
        return text;
    }

    // The part above `base` of a bar that is solid up to `known` and lighter up to `most`.
    const char *BarOf(std::size_t known, std::size_t most, std::size_t base) const {
        if (known <= base && most > base)
            return SignOf(Cell::Band);
        const std::size_t level = std::min(std::max(known, base) - base, kLevels);
        return screen_.utf8 ? kBlockBars.at(level) : kAsciiBars.at(level);
    }

    // --- The legend ---

    bool Shows(Cell cell) const {
        return std::any_of(rows_.begin(), rows_.end(), [cell](const Cells &cells) {
            return std::find(cells.begin(), cells.end(), cell) != cells.end();
        });
    }

    std::string Legend() const {
        std::vector<std::string> entries{std::string(SignOf(Cell::Start)) + " start"};
        if (Shows(Cell::Band))
            entries.push_back(std::string(SignOf(Cell::Band)) + SignOf(Cell::NextBand) +
                              " one start in each band");
        if (Shows(Cell::Bands))
            entries.push_back(std::string(SignOf(Cell::Bands)) + " several bands");
        if (Shows(Cell::Overdue))
            entries.push_back(std::string(SignOf(Cell::Overdue)) + " overdue");
        const std::size_t tallest = TallestOf(load_);
        entries.push_back("load: at most " + std::to_string(tallest) +
                          (tallest == 1 ? " start" : " starts") + " in a quarter hour");
        return Wrapped(entries);
    }

    // As many entries in each line as it has room for.
    std::string Wrapped(const std::vector<std::string> &entries) const {
        std::string text;
        std::string line;
        for (const std::string &entry : entries) {
            if (!line.empty() && WidthOf(line) + 2 + WidthOf(entry) > Width())
                text += Line(Colour::Dim, std::exchange(line, ""));
            line += (line.empty() ? "" : "  ") + entry;
        }
        return text + Line(Colour::Dim, line);
    }

    const ComingHours &hours_;
    const Screen &screen_;
    std::vector<ClockMark> marks_;
    std::vector<QuarterHour> load_;
    std::vector<Cells> rows_;
    std::size_t nameWidth_ = 0;
    std::size_t columns_ = 0;
};

} // namespace

std::string TimelineInText(const ComingHours &hours, const Screen &screen) {
    return TextPicture(hours, screen).Show();
}

} // namespace kest::ctl
