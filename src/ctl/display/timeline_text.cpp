#include "ctl/display/timeline_text.h"

#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kest::ctl {

namespace {

// What a character cell shows. If several apply, the last one of this list is shown.
enum class Cell {
    Empty,
    Midnight,
    Band,
    NextBand,
    Bands,
    StartLeft,
    StartRight,
    Start,
    Overdue,
    ByHand,
    Failed
};

struct Symbol {
    const char *block;
    const char *ascii;
    Colour colour;
};
constexpr std::array<Symbol, 11> kSymbols{{
    {" ", " ", Colour::None},
    {"│", "|", Colour::Dim},
    {"░", ".", Colour::Green},
    {"▒", ",", Colour::Green}, // alternates with the one before
    {"▓", ";", Colour::Green}, // several bands begin here
    {"▌", "#", Colour::Green}, // starts in one half of the cell
    {"▐", "#", Colour::Green},
    {"█", "#", Colour::Green},
    {"▲", "!", Colour::Yellow},
    {"◆", "o", Colour::None},
    {"×", "x", Colour::Red},
}};

constexpr std::size_t kLevels = 8; // in one line of the load
constexpr std::array<const char *, kLevels + 1> kBlockBars{" ", "▁", "▂", "▃", "▄",
                                                           "▅", "▆", "▇", "█"};
constexpr std::array<const char *, kLevels + 1> kAsciiBars{" ", ":", ":", ":", ":",
                                                           "#", "#", "#", "#"};

class TextTimeline {
public:
    TextTimeline(const TimelineData &data, const Screen &screen)
        : data_(data), screen_(screen), marks_(ClockMarksOf(data)), load_(LoadOf(data)) {
        constexpr std::size_t usual = 100;
        constexpr std::size_t narrowest = 30;
        constexpr std::size_t shortest = 8;
        const std::size_t width = std::max(screen.width == 0 ? usual : screen.width, narrowest);
        std::size_t longest = shortest;
        for (const JobRow &row : data.rows)
            longest = std::max(longest, WidthOf(Shown(row.name)));
        nameWidth_ = std::min(longest, width / 3);
        columns_ = width - nameWidth_ - 1;
        for (const JobRow &row : data.rows)
            rows_.push_back(CellsOf(row));
    }

    std::string Show() const {
        const std::time_t now = data_.past ? data_.until : data_.from;
        std::string text = Line(Colour::Bold, WhenInWords(data_.from, now) + " to " +
                                                  WhenInWords(data_.until, now));
        if (data_.held)
            text += Line(Colour::Yellow, "The machine is held: scheduled starts wait");
        if (IsLogTooShort(data_))
            text += Line(Colour::Yellow, data_.logBegins == 0
                                             ? "The execution log is empty"
                                             : "The execution log begins " +
                                                   WhenInWords(data_.logBegins, data_.until));
        if (data_.rows.empty())
            text += Line(Colour::None, data_.past ? "No job started in these hours"
                                                  : "No job starts in these hours");
        else
            text += Clock() + Rows() + Load() + Legend();
        if (data_.idle != 0)
            text += Line(Colour::None, IdleInWords(data_));
        return text;
    }

private:
    using Cells = std::vector<Cell>;

    // The index of the time if the timeline is divided into `cells`.
    std::size_t CellOf(std::time_t time, std::size_t cells) const {
        const auto whole = static_cast<std::size_t>(data_.until - data_.from);
        return std::min(static_cast<std::size_t>(time - data_.from) * cells / whole, cells - 1);
    }
    std::size_t ColumnOf(std::time_t time) const { return CellOf(time, columns_); }

    std::size_t Width() const { return nameWidth_ + 1 + columns_; }

    std::string Line(Colour colour, const std::string &text) const {
        return Coloured(screen_, colour, Fitted(screen_, text, Width())) + "\n";
    }

    // A line with its name in front.
    static std::string Labelled(std::string name, const std::string &cells) {
        std::string line = std::move(name) + " " + cells;
        line.erase(line.find_last_not_of(' ') + 1);
        return line + "\n";
    }
    std::string Name(const std::string &text) const {
        return Padded(Fitted(screen_, text, nameWidth_), nameWidth_);
    }

    // --- The clock ---

    // Writes a label if its columns are free.
    static void Write(std::string &labels, std::size_t column, const std::string &label) {
        const std::size_t begin = column == 0 ? 0 : column - 1; // keep a blank between labels
        if (labels.find_first_not_of(' ', begin) > column + label.size() &&
            column + label.size() <= labels.size())
            labels.replace(column, label.size(), label);
    }

    std::string Clock() const {
        constexpr double least = 7; // columns
        const double minutes = static_cast<double>(data_.until - data_.from) / 60;
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

    void PutStart(Cells &cells, std::time_t time) const {
        const std::size_t half = CellOf(time, 2 * columns_);
        Put(cells[half / 2], half % 2 == 0 ? Cell::StartLeft : Cell::StartRight);
    }

    void PutBand(Cells &cells, const JobStart &start, Cell shown) const {
        const std::size_t first = ColumnOf(start.FirstStart());
        for (std::size_t i = first; i <= ColumnOf(start.LastStart()); ++i)
            Put(cells[i], shown);
    }

    void PutStarts(Cells &cells, const std::vector<JobStart> &starts) const {
        Cell band = Cell::NextBand;
        std::size_t lastBegin = columns_;
        for (const JobStart &start : starts) {
            const std::size_t column = ColumnOf(start.FirstStart());
            if (start.overdue) {
                Put(cells[column], Cell::Overdue);
            } else if (start.IsExact()) {
                PutStart(cells, start.FirstStart());
            } else {
                band = band == Cell::Band ? Cell::NextBand : Cell::Band;
                PutBand(cells, start, band);
                if (column == std::exchange(lastBegin, column))
                    Put(cells[column], Cell::Bands);
            }
        }
    }

    Cells CellsOf(const JobRow &row) const {
        Cells cells(columns_, Cell::Empty);
        for (const ClockMark &mark : marks_)
            if (mark.newDay)
                cells[ColumnOf(mark.time)] = Cell::Midnight;
        PutStarts(cells, row.starts);
        for (const PastStart &start : row.past)
            if (start.failed || start.manual)
                Put(cells[ColumnOf(start.time)], start.failed ? Cell::Failed : Cell::ByHand);
            else
                PutStart(cells, start.time);
        return cells;
    }

    std::string Rows() const {
        std::string text;
        for (std::size_t i = 0; i < rows_.size(); ++i)
            text += Labelled(Name(Shown(data_.rows[i].name)), Drawn(rows_[i]));
        return text;
    }

    std::string Drawn(const Cells &cells) const {
        std::string text;
        for (std::size_t i = 0; i < cells.size();) {
            const Colour colour = SymbolOf(cells[i]).colour;
            std::string same;
            for (; i < cells.size() && SymbolOf(cells[i]).colour == colour; ++i)
                same += TextOf(cells[i]);
            text += Coloured(screen_, colour, same);
        }
        return text;
    }

    static const Symbol &SymbolOf(Cell cell) { return kSymbols.at(static_cast<std::size_t>(cell)); }
    const char *TextOf(Cell cell) const {
        return screen_.utf8 ? SymbolOf(cell).block : SymbolOf(cell).ascii;
    }

    // --- The load ---

    // The quarter of an hour with the largest load in each column.
    std::vector<QuarterHour> LoadColumns() const {
        std::vector<QuarterHour> columns(columns_);
        for (const QuarterHour &quarter : load_) {
            const std::time_t begin = std::max(quarter.from, data_.from);
            const std::time_t end = std::min(quarter.from + kQuarterHour, data_.until);
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
        const std::size_t maximum = MaximumOf(load_);
        const auto levelOf = [&](std::size_t count) { // rounded up, so that any load is visible
            return (count * lines * kLevels + maximum - 1) / maximum;
        };
        std::string text;
        for (std::size_t line = lines; line-- > 0;) {
            std::string bars;
            for (const QuarterHour &column : columns)
                bars += BarOf(levelOf(column.starts), levelOf(column.starts + column.possible),
                              line * kLevels);
            const std::string scale = line == 0 ? "0" : std::to_string(maximum);
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
            return TextOf(Cell::Band);
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
        std::vector<std::string> entries{std::string(TextOf(Cell::Start)) + " start"};
        if (Shows(Cell::Band))
            entries.push_back(std::string(TextOf(Cell::Band)) + TextOf(Cell::NextBand) +
                              " possible starts");
        if (Shows(Cell::Bands))
            entries.push_back(std::string(TextOf(Cell::Bands)) + " several bands");
        if (Shows(Cell::Overdue))
            entries.push_back(std::string(TextOf(Cell::Overdue)) + " overdue");
        if (Shows(Cell::ByHand))
            entries.push_back(std::string(TextOf(Cell::ByHand)) + " start by hand");
        if (Shows(Cell::Failed))
            entries.push_back(std::string(TextOf(Cell::Failed)) + " failed");
        const std::size_t maximum = MaximumOf(load_);
        entries.push_back("load: at most " + std::to_string(maximum) +
                          (maximum == 1 ? " start" : " starts") + " in a quarter hour");
        return Wrapped(entries);
    }

    // As many entries in each line as fit.
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

    const TimelineData &data_;
    const Screen &screen_;
    std::vector<ClockMark> marks_;
    std::vector<QuarterHour> load_;
    std::vector<Cells> rows_;
    std::size_t nameWidth_ = 0;
    std::size_t columns_ = 0;
};

} // namespace

std::string TimelineInText(const TimelineData &data, const Screen &screen) {
    return TextTimeline(data, screen).Show();
}

} // namespace kest::ctl
