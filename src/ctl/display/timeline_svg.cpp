#include "ctl/display/timeline_svg.h"

#include "ctl/display/screen.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kest::ctl {

namespace {

constexpr double kWidth = 1200;
constexpr double kMargin = 28;
constexpr double kRowHeight = 22;
constexpr double kMarkHeight = 14;
constexpr double kLoadHeight = 96;
constexpr double kClockTop = 92; // of the line of labels above the rows
constexpr double kRowsTop = 106;
constexpr double kLetter = 7.3; // width of a letter of a job name
constexpr std::size_t kLongestName = 36;

// The light colours, then those that differ in the dark. Some viewers do not support CSS variables.
constexpr const char *kStyle = R"(
.page{fill:#fff} .stripe{fill:#f5f7fa}
text{font-family:system-ui,-apple-system,'Segoe UI','DejaVu Sans',sans-serif;fill:#1f2933}
.heading{font-size:20px;font-weight:600} .small{font-size:12px} .quiet{fill:#5f6c7b}
.name{font-family:ui-monospace,'DejaVu Sans Mono',monospace;font-size:12px}
.day{font-size:12px;font-weight:600}
.hour{stroke:#e4e8ed} .daybreak{stroke:#8c98a6} .base{stroke:#b8c1cc}
.mark,.bar{fill:#2563eb} .band{fill:#2563eb;fill-opacity:.16;stroke:#2563eb;stroke-opacity:.45}
.may{fill:#2563eb;fill-opacity:.22} .overdue{fill:#d9480f}
.byhand{fill:#0f766e} .failed{fill:#c81e1e}
@media (prefers-color-scheme:dark){
.page{fill:#14181d} .stripe{fill:#1a2027} text{fill:#e6ebf0} .quiet{fill:#98a5b3}
.hour{stroke:#272f38} .daybreak{stroke:#5d6a78} .base{stroke:#46525e}
.mark,.bar{fill:#74a9ff} .band{fill:#74a9ff;stroke:#74a9ff} .may{fill:#74a9ff;fill-opacity:.32}
.overdue{fill:#ffa15c} .byhand{fill:#5ccfc0} .failed{fill:#ff7b7b}}
)";

// --- Pieces of a document -----------------------------------------------------------------------

// Text inside an element. XML does not allow U+FFFE and U+FFFF.
std::string Escaped(const std::string &text) {
    const std::string valid = Shown(text);
    std::string escaped;
    for (std::size_t i = 0; i < valid.size(); ++i) {
        const bool forbidden =
            valid.compare(i, 3, "\xEF\xBF\xBE") == 0 || valid.compare(i, 3, "\xEF\xBF\xBF") == 0;
        if (forbidden) {
            escaped += "\xEF\xBF\xBD";
            i += 2;
        } else if (valid[i] == '&') {
            escaped += "&amp;";
        } else if (valid[i] == '<') {
            escaped += "&lt;";
        } else if (valid[i] == '>') {
            escaped += "&gt;";
        } else {
            escaped += valid[i];
        }
    }
    return escaped;
}

std::string Number(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

std::string Attribute(const char *name, double value) {
    return std::string(" ") + name + "=\"" + Number(value) + "\"";
}

// An element with a tooltip, unless `title` is empty.
std::string Element(const std::string &name, const std::string &attributes,
                    const std::string &title) {
    const std::string begin = "<" + name + attributes;
    return begin +
           (title.empty() ? "/>\n" : "><title>" + Escaped(title) + "</title></" + name + ">\n");
}

std::string Class(const char *kind) {
    return std::string(" class=\"") + kind + "\"";
}

struct Box {
    double x;
    double y;
    double width;
    double height;
    double radius = 0;
};

std::string Rectangle(const char *kind, const Box &box, const std::string &title = "") {
    return Element("rect",
                   Class(kind) + Attribute("x", box.x) + Attribute("y", box.y) +
                       Attribute("width", box.width) + Attribute("height", box.height) +
                       (box.radius > 0 ? Attribute("rx", box.radius) : ""),
                   title);
}

std::string Diamond(const char *kind, double x, double y, double radius, const std::string &title) {
    const std::string points = Number(x - radius) + "," + Number(y) + " " + Number(x) + "," +
                               Number(y - radius) + " " + Number(x + radius) + "," + Number(y) +
                               " " + Number(x) + "," + Number(y + radius);
    return Element("polygon", Class(kind) + " points=\"" + points + "\"", title);
}

// A cross like a multiplication sign.
std::string Cross(const char *kind, double x, double y, double radius, const std::string &title) {
    const double thin = radius * .4; // half of the width of an arm, along the axes
    const double points[][2] = {{0, -thin}, {radius - thin, -radius}, {radius, thin - radius},
                                {thin, 0},  {radius, radius - thin},  {radius - thin, radius},
                                {0, thin},  {thin - radius, radius},  {-radius, radius - thin},
                                {-thin, 0}, {-radius, thin - radius}, {thin - radius, -radius}};
    std::string text;
    for (const auto &point : points)
        text += (text.empty() ? "" : " ") + Number(x + point[0]) + "," + Number(y + point[1]);
    return Element("polygon", Class(kind) + " points=\"" + text + "\"", title);
}

std::string Line(const char *kind, double x1, double y1, double x2, double y2) {
    return Element("line",
                   Class(kind) + Attribute("x1", x1) + Attribute("y1", y1) + Attribute("x2", x2) +
                       Attribute("y2", y2),
                   "");
}

enum class Anchor { Begin, Middle, End };

std::string Text(const char *kind, double x, double y, Anchor anchor, const std::string &text,
                 const std::string &title = "") {
    const char *side = anchor == Anchor::Begin    ? ""
                       : anchor == Anchor::Middle ? " text-anchor=\"middle\""
                                                  : " text-anchor=\"end\"";
    return "<text" + Class(kind) + Attribute("x", x) + Attribute("y", y) + side + ">" +
           (title.empty() ? "" : "<title>" + Escaped(title) + "</title>") + Escaped(text) +
           "</text>\n";
}

// --- The drawing --------------------------------------------------------------------------------

class Drawing {
public:
    explicit Drawing(const TimelineData &data)
        : data_(data), marks_(ClockMarksOf(data)), load_(LoadOf(data)) {
        std::size_t longest = 12;
        for (const JobRow &row : data.rows)
            longest = std::max(longest, Label(row.name).size());
        left_ = kMargin + kLetter * static_cast<double>(std::min(longest, kLongestName)) + 14;
        rowsBottom_ = kRowsTop + kRowHeight * static_cast<double>(data.rows.size());
        loadBottom_ = rowsBottom_ + 34 + kLoadHeight;
        bottom_ = data.rows.empty() ? kRowsTop + 40 : loadBottom_ + 80;
    }

    std::string Show() const {
        std::string text = Head();
        if (data_.rows.empty())
            text +=
                Text("small", kMargin, kRowsTop, Anchor::Begin,
                     data_.past ? "No job started in these hours" : "No job starts in these hours");
        else
            text += Stripes() + Clock() + Rows() + Load() + Legend();
        return text + "</svg>\n";
    }

private:
    double X(std::time_t time) const {
        const std::time_t within = std::clamp(time, data_.from, data_.until);
        return left_ + static_cast<double>(within - data_.from) * PerMinute() / 60;
    }
    double PerMinute() const {
        return (right_ - left_) * 60 / static_cast<double>(data_.until - data_.from);
    }

    std::string Summary() const {
        std::size_t starts = 0;
        std::size_t bands = 0;
        for (const JobRow &row : data_.rows) {
            starts += row.past.size();
            for (const JobStart &start : row.starts)
                ++(start.IsExact() ? starts : bands);
        }
        std::string text =
            Counted(data_.rows.size(), "job", "jobs") + ", " + Counted(starts, "start", "starts");
        if (bands != 0)
            text += " and " + std::to_string(bands) + " whose time is not yet drawn";
        if (IsLogTooShort(data_))
            text += data_.logBegins == 0
                        ? "; the execution log is empty"
                        : "; the execution log begins at " + Moment(data_.logBegins);
        return text + (data_.idle != 0 ? "; " + IdleInWords(data_) : "");
    }

    std::string Head() const {
        const std::string title =
            "Job starts from " + Moment(data_.from) + " to " + Moment(data_.until);
        const std::string size = "0 0 " + Number(kWidth) + " " + Number(bottom_);
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"" +
               size + "\"" + Attribute("width", kWidth) + Attribute("height", bottom_) +
               " role=\"img\" aria-labelledby=\"title description\">\n"
               "<title id=\"title\">" +
               Escaped(title) + "</title>\n" + "<desc id=\"description\">" + Escaped(Summary()) +
               "</desc>\n" + "<style>" + kStyle + "</style>\n" +
               Rectangle("page", {0, 0, kWidth, bottom_}) +
               Text("heading", kMargin, 42, Anchor::Begin, title) +
               Text("small quiet", kMargin, 64, Anchor::Begin,
                    Summary() + (data_.held ? "; the machine is held: scheduled starts wait" : ""));
    }

    std::string Stripes() const {
        std::string text;
        for (std::size_t i = 0; i < data_.rows.size(); i += 2)
            text += Rectangle("stripe",
                              {kMargin - 8, RowTop(i), kWidth - 2 * kMargin + 16, kRowHeight, 4});
        return text;
    }

    std::string Clock() const {
        constexpr double leastForLabels = 48;
        constexpr double leastForLines = 20;
        const int labels = MinutesBetweenLabels(PerMinute(), leastForLabels);
        const int lines = MinutesBetweenLabels(PerMinute(), leastForLines);
        std::string text;
        for (const ClockMark &mark : marks_) {
            const double x = X(mark.time);
            if (mark.newDay || mark.minuteOfDay % lines == 0) {
                const char *kind = mark.newDay ? "daybreak" : "hour";
                text += Line(kind, x, kClockTop + 6, x, rowsBottom_) +
                        Line(kind, x, loadBottom_ - kLoadHeight, x, loadBottom_);
            }
            if (mark.newDay || mark.minuteOfDay % labels == 0)
                for (const double y : {kClockTop, loadBottom_ + 16})
                    text += Text(mark.newDay ? "day" : "small quiet", x, y, Anchor::Middle,
                                 mark.newDay ? ShortDay(mark.time)
                                             : ClockInWords(mark.time, mark.time));
        }
        return text;
    }

    // --- The jobs ---

    static double RowTop(std::size_t index) {
        return kRowsTop + kRowHeight * static_cast<double>(index);
    }

    static std::string Label(const std::string &name) {
        Screen page;
        page.utf8 = true;
        return Fitted(page, Shown(name), kLongestName);
    }

    std::string Rows() const {
        std::string text;
        for (std::size_t i = 0; i < data_.rows.size(); ++i) {
            const JobRow &row = data_.rows[i];
            text +=
                Text("name", kMargin, RowTop(i) + 15, Anchor::Begin, Label(row.name), row.name) +
                Bands(row, RowTop(i)) + Starts(row, RowTop(i)) + Overdues(row, RowTop(i)) +
                SpecialStarts(row, RowTop(i));
        }
        return text;
    }

    std::string Bands(const JobRow &row, double top) const {
        std::string text;
        for (const JobStart &start : row.starts) {
            if (start.IsExact())
                continue;
            const double x = X(start.FirstStart()) + .5;
            const double width = std::max(X(start.LastStart() + 60) - x - 1, 2.);
            text += Rectangle("band", {x, top + 5, width, kRowHeight - 10, 3},
                              row.name + ": " + BandInWords(start));
        }
        return text;
    }

    // Marks that would touch are drawn as one.
    std::string Starts(const JobRow &row, double top) const {
        constexpr double gap = 1.5;
        const double width = MarkWidth();
        std::string text;
        std::vector<std::time_t> together;
        const auto draw = [&] {
            if (!together.empty())
                text += Mark(row.name, together, top);
            together.clear();
        };
        for (const std::time_t time : TimesOfMarks(row)) {
            if (!together.empty() && X(time) - X(together.back()) >= width + gap)
                draw();
            together.push_back(time);
        }
        draw();
        return text;
    }

    double MarkWidth() const { return std::clamp(PerMinute(), 3., 8.); }

    std::string Mark(const std::string &name, const std::vector<std::time_t> &together,
                     double top) const {
        const double x = X(together.front());
        const double width = X(together.back()) - x + MarkWidth();
        std::string title = name + ": " + Moment(together.front());
        if (together.size() > 1)
            title += " to " + Moment(together.back()) + ", " + std::to_string(together.size()) +
                     " starts";
        return Rectangle("mark", {x, top + (kRowHeight - kMarkHeight) / 2, width, kMarkHeight, 1.5},
                         title);
    }

    std::string Overdues(const JobRow &row, double top) const {
        std::string text;
        for (const JobStart &start : row.starts)
            if (start.overdue)
                text += Diamond("overdue", X(start.FirstStart()), top + kRowHeight / 2, 6,
                                row.name + ": " + Moment(start.FirstStart()) + ", overdue");
        return text;
    }

    // Past starts by hand and failures, above the others.
    std::string SpecialStarts(const JobRow &row, double top) const {
        const double y = top + kRowHeight / 2;
        std::string text;
        for (const PastStart &start : row.past) {
            const std::string title = row.name + ": " + Moment(start.time);
            if (start.failed)
                text +=
                    Cross("failed", X(start.time), y, 6,
                          title + (start.manual ? ", by hand" : "") + ", failed: " + start.reason);
            else if (start.manual)
                text += Diamond("byhand", X(start.time), y, 6, title + ", by hand");
        }
        return text;
    }

    // --- The load ---

    std::string Load() const {
        const std::size_t maximum = MaximumOf(load_);
        const auto heightOf = [&](std::size_t count) {
            return kLoadHeight * static_cast<double>(count) / static_cast<double>(maximum);
        };
        std::string text =
            Text("small quiet", kMargin, loadBottom_ - kLoadHeight + 4, Anchor::Begin, "Load");
        for (const std::size_t count :
             {maximum, maximum % 2 == 0 ? maximum / 2 : 0, std::size_t{0}}) {
            const double y = loadBottom_ - heightOf(count);
            text += Line(count == 0 ? "base" : "hour", left_, y, right_, y) +
                    Text("small quiet", left_ - 8, y + 4, Anchor::End, std::to_string(count));
        }
        for (const QuarterHour &quarter : load_) {
            if (quarter.starts + quarter.possible == 0)
                continue;
            const double known = heightOf(quarter.starts);
            const double may = heightOf(quarter.possible);
            const double x = X(quarter.from);
            const double space = X(quarter.from + kQuarterHour) - x;
            const double width = space > 4 ? space - 1 : space;
            text += "<g><title>" + Escaped(QuarterInWords(quarter)) + "</title>\n";
            if (quarter.possible != 0)
                text += Rectangle("may", {x, loadBottom_ - known - may, width, may});
            if (quarter.starts != 0)
                text += Rectangle("bar", {x, loadBottom_ - known, width, known});
            text += "</g>\n";
        }
        return text;
    }

    std::string Legend() const {
        const double y = loadBottom_ + 52;
        const double middle = y - 4;
        const double start = left_;
        const double band = start + 82;
        const double overdue = band + 258;
        const double load = overdue + 134;
        const auto label = [&](double x, const char *text) {
            return Text("small", x, y, Anchor::Begin, text);
        };
        const std::string mark =
            Rectangle("mark", {start, middle - kMarkHeight / 2, 3, kMarkHeight, 1.5}) +
            label(start + 12, "start");
        if (data_.past)
            return mark + Diamond("byhand", band + 6, middle, 6, "") +
                   label(band + 20, "start by hand") + Cross("failed", band + 136, middle, 6, "") +
                   label(band + 150, "failed") + Rectangle("bar", {overdue, middle - 8, 8, 14}) +
                   label(overdue + 16, "load: starts in a quarter hour");
        return mark + Rectangle("band", {band, middle - 6, 34, 12, 3}) +
               label(band + 42, "possible starts") +
               Diamond("overdue", overdue + 6, middle, 6, "") +
               label(overdue + 20, "overdue start") + Rectangle("bar", {load, middle - 2, 8, 8}) +
               Rectangle("may", {load, middle - 8, 8, 6}) +
               label(load + 16, "load: starts in a quarter hour, certain and possible");
    }

    const TimelineData &data_;
    std::vector<ClockMark> marks_;
    std::vector<QuarterHour> load_;
    double left_ = 0;
    double right_ = kWidth - kMargin;
    double rowsBottom_ = 0;
    double loadBottom_ = 0;
    double bottom_ = 0;
};

} // namespace

std::string TimelineInSvg(const TimelineData &data) {
    return Drawing(data).Show();
}

} // namespace kest::ctl
