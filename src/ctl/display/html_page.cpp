#include "ctl/display/html_page.h"

#include "ctl/display/html/page_parts.h"
#include "ctl/display/job_status.h"
#include "ctl/display/phrases.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kest::ctl {

namespace {

// --- Pieces of a document -----------------------------------------------------------------------

// Foreign text inside an element or a quoted attribute.
std::string Html(const std::string &text) {
    std::string escaped;
    for (const char character : Shown(text))
        switch (character) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += character;
        }
    return escaped;
}

// `attributes` are escaped already, and so is `content`.
std::string Tag(const std::string &name, const std::string &attributes,
                const std::string &content) {
    return "<" + name + (attributes.empty() ? "" : " ") + attributes + ">" + content + "</" + name +
           ">";
}

std::string Attr(const char *name, const std::string &value) {
    return std::string(name) + R"(=")" + Html(value) + R"(")";
}

std::string Class(const std::string &name, const std::string &content) {
    return Tag("span", Attr("class", name), content);
}

std::string TimeTag(std::time_t time) {
    return Tag("time", Attr("datetime", Iso(time)), Moment(time));
}

std::string Heading(const std::string &title, const std::string &note) {
    return Tag("h2", "", title + " " + Tag("small", "", note)) + "\n";
}

const char *ClassOf(Colour colour) {
    switch (colour) {
    case Colour::Red:
        return "bad";
    case Colour::Yellow:
        return "warn";
    case Colour::Green:
        return "good";
    default:
        return "";
    }
}

// --- The day ------------------------------------------------------------------------------------

class Picture {
public:
    explicit Picture(const TimelineData &data)
        : data_(data), marks_(ClockMarksOf(data)), load_(LoadOf(data)) {}

    std::string Show() const {
        std::string rows = Axis();
        for (const JobRow &row : data_.rows)
            rows += Row(row);
        return "<figure class=\"picture\">\n"
               R"(<div class="tools" hidden>)"
               R"(<button type="button" class="in" aria-label="Zoom in">+</button>)"
               R"(<button type="button" class="out" aria-label="Zoom out">−</button>)"
               "<button type=\"button\" class=\"whole\">Whole period</button></div>\n" +
               Tag("div",
                   Attr("class", "scroll") + R"( tabindex="0" role="region" )" +
                       Attr("aria-label", Title()),
                   "\n<div class=\"wide\">" + Grid() + rows + Load() + "</div>\n") +
               Legend() + "</figure>\n";
    }

    std::string Title() const {
        return std::string(data_.past ? "Past starts" : "Coming starts") + " from " +
               Moment(data_.from) + " to " + Moment(data_.until);
    }

private:
    double Share(std::time_t time) const {
        const std::time_t within = std::clamp(time, data_.from, data_.until);
        return static_cast<double>(within - data_.from) /
               static_cast<double>(data_.until - data_.from);
    }

    static std::string Percent(const char *name, double share) {
        std::array<char, 48> text{};
        std::snprintf(text.data(), text.size(), R"( %s="%.3f%%")", name, 100 * share);
        return text.data();
    }

    static std::string Titled(const std::string &element, const std::string &attributes,
                              const std::string &title) {
        return "<" + element + attributes + "><title>" + Html(title) + "</title></" + element + ">";
    }

    // --- The clock ---

    std::string Grid() const {
        std::string lines;
        for (const ClockMark &mark : marks_)
            if (mark.minuteOfDay % 60 == 0) {
                const std::string x =
                    Percent("x1", Share(mark.time)) + Percent("x2", Share(mark.time));
                lines += R"(<line class=")" + KindOf(mark) + R"(")" + x + R"( y1="0" y2="100%"/>)";
            }
        return R"(<svg class="grid" aria-hidden="true">)" + lines + "</svg>\n";
    }

    std::string Axis() const {
        std::string labels;
        for (const ClockMark &mark : marks_)
            if (mark.minuteOfDay % 60 == 0 && Share(mark.time) < .97)
                labels += R"(<text class=")" + KindOf(mark) + R"(")" +
                          Percent("x", Share(mark.time)) + R"( dx="3" y="16">)" +
                          (mark.newDay ? ShortDay(mark.time) : ClockInWords(mark.time, mark.time)) +
                          "</text>";
        return R"(<div class="row axis"><span class="name"></span><svg class="track" )"
               R"(aria-hidden="true">)" +
               labels + "</svg></div>\n";
    }

    // "fine" is shown when the picture is zoomed, and "hours-6" also on a wide screen.
    std::string KindOf(const ClockMark &mark) const {
        const auto hours = static_cast<int>((data_.until - data_.from) / kHour);
        const int step = 60 * std::max(1, (hours + 11) / 12);
        if (mark.newDay)
            return "newday";
        if (mark.minuteOfDay % (3 * step) == 0)
            return "coarse";
        return mark.minuteOfDay % step == 0 ? "hours-6" : "fine";
    }

    // --- The jobs ---

    std::string Row(const JobRow &row) const {
        const std::size_t starts = row.starts.size() + row.past.size();
        const std::string name = row.name + ": " + Counted(starts, "start", "starts") +
                                 " or spans, the first at " + Moment(FirstOf(row));
        return R"(<div class="row" )" + Attr("data-job", row.name) + ">" +
               Class("name", Html(row.name)) + R"(<svg class="track" role="img" )" +
               Attr("aria-label", name) + ">" + Bands(row) + Starts(row) + Shapes(row) +
               "</svg></div>\n";
    }

    static std::time_t FirstOf(const JobRow &row) {
        return row.past.empty() ? row.starts.front().FirstStart() : row.past.front().time;
    }

    std::string Bands(const JobRow &row) const {
        std::string text;
        for (const JobStart &start : row.starts)
            if (!start.IsExact()) {
                const double x = Share(start.FirstStart());
                text += Titled("rect",
                               R"( class="band")" + Percent("x", x) +
                                   Percent("width", Share(start.LastStart() + kMinute) - x) +
                                   R"( y="6" height="12")",
                               row.name + ": " + BandInWords(start));
            }
        return text;
    }

    // Starts in succeeding minutes are drawn as one.
    std::string Starts(const JobRow &row) const {
        constexpr std::time_t succeeding = 2 * kMinute;
        const std::vector<std::time_t> times = TimesOfMarks(row);
        std::string text;
        for (std::size_t first = 0, last = 0; first < times.size(); first = ++last) {
            while (last + 1 < times.size() && times[last + 1] - times[last] < succeeding)
                ++last;
            text += Mark(row.name, times[first], times[last], last - first + 1);
        }
        return text;
    }

    std::string Mark(const std::string &name, std::time_t first, std::time_t last,
                     std::size_t count) const {
        const double x = Share(first);
        if (count == 1)
            return Titled("line",
                          R"( class="mark")" + Percent("x1", x) + Percent("x2", x) +
                              R"( y1="4" y2="20")",
                          name + ": " + Moment(first));
        return Titled("rect",
                      R"( class="run")" + Percent("x", x) + Percent("width", Share(last) - x) +
                          R"( y="5" height="14")",
                      name + ": " + Moment(first) + " to " + Moment(last) + ", " +
                          std::to_string(count) + " starts");
    }

    // Overdue starts, starts by hand and failures, above the others.
    std::string Shapes(const JobRow &row) const {
        std::string text;
        for (const JobStart &start : row.starts)
            if (start.overdue)
                text += At(start.FirstStart(),
                           Titled("path", kOverdue,
                                  row.name + ": " + Moment(start.FirstStart()) + ", overdue"));
        for (const PastStart &start : row.past)
            if (start.failed || start.manual)
                text +=
                    At(start.time, Titled("path", start.failed ? kFailed : kByHand,
                                          row.name + ": " + Moment(start.time) +
                                              (start.manual ? ", by hand" : "") +
                                              (start.failed ? ", failed: " + start.reason : "")));
        return text;
    }

    std::string At(std::time_t time, const std::string &shape) const {
        return R"(<svg class="at")" + Percent("x", Share(time)) + R"( y="12">)" + shape + "</svg>";
    }

    static constexpr const char *kOverdue = R"( class="overdue" d="M0-7 7 6H-7Z")";
    static constexpr const char *kByHand = R"( class="hand" d="M0-7 7 0 0 7-7 0Z")";
    static constexpr const char *kFailed = R"( class="failed" d="M-5-5 5 5M5-5-5 5")";

    // --- The load and the legend ---

    std::string Load() const {
        const std::size_t maximum = MaximumOf(load_);
        std::string bars;
        const auto bar = [&](const char *kind, const QuarterHour &quarter, std::size_t below,
                             std::size_t count) {
            const auto most = static_cast<double>(maximum);
            const double height = static_cast<double>(count) / most;
            const double x = Share(quarter.from);
            if (count != 0)
                bars += Titled("rect",
                               std::string(R"( class=")") + kind + R"(")" + Percent("x", x) +
                                   Percent("width", Share(quarter.from + kQuarterHour) - x) +
                                   Percent("y", 1 - height - static_cast<double>(below) / most) +
                                   Percent("height", height),
                               QuarterInWords(quarter));
        };
        for (const QuarterHour &quarter : load_) {
            bar("bar", quarter, 0, quarter.starts);
            bar("may", quarter, quarter.starts, quarter.possible);
        }
        const std::string most =
            "load: at most " + Counted(maximum, "start", "starts") + " in a quarter of an hour";
        return R"(<div class="row load">)" + Class("name quiet", most) +
               R"(<svg class="track" role="img" )" + Attr("aria-label", most) + ">" + bars +
               "</svg></div>";
    }

    std::string Legend() const {
        const auto entry = [](const std::string &shape, const char *text) {
            return Tag("span", "", R"(<svg aria-hidden="true">)" + shape + "</svg>" + text);
        };
        const auto shape = [](const char *path) {
            return std::string(R"(<svg class="at" x="7" y="7"><path)") + path + "/></svg>";
        };
        std::string text = entry(R"(<line class="mark" x1="7" x2="7" y1="0" y2="14"/>)", "start");
        if (data_.past)
            text += entry(shape(kByHand), "start by hand") + entry(shape(kFailed), "failed");
        else
            text +=
                entry(R"(<rect class="band" y="2" width="15" height="10"/>)", "possible starts") +
                entry(shape(kOverdue), "overdue");
        return R"(<figcaption class="legend">)" + text + "</figcaption>\n";
    }

    const TimelineData &data_;
    std::vector<ClockMark> marks_;
    std::vector<QuarterHour> load_;
};

std::string Day(const TimelineData &data) {
    const auto hours = static_cast<std::size_t>((data.until - data.from) / kHour);
    std::string text = Heading(std::string(data.past ? "The past " : "The next ") +
                                   Counted(hours, "hour", "hours"),
                               Moment(data.from) + " to " + Moment(data.until));
    if (data.held)
        text += Tag("p", R"(class="warn")", "The machine is held: scheduled starts wait.");
    if (IsLogTooShort(data))
        text += Tag("p", R"(class="warn")",
                    data.logBegins == 0
                        ? "The execution log is empty."
                        : "The execution log begins at " + Moment(data.logBegins) + ".");
    text += data.rows.empty() ? Tag("p", "",
                                    data.past ? "No job started in these hours."
                                              : "No job starts in these hours.")
                              : Picture(data).Show();
    if (data.idle != 0)
        text += Tag("p", R"(class="quiet")", IdleInWords(data) + ".");
    return Tag("section", "", text) + "\n";
}

// --- The other sections -------------------------------------------------------------------------

std::string Head(const std::string &title) {
    const std::string policy = std::string("default-src 'none'; style-src 'sha256-") +
                               kPageStyleHash + "'; script-src 'sha256-" + kPageScriptHash +
                               "'; base-uri 'none'; form-action 'none'";
    // Hashes and source expressions have no character that ends the attribute.
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           R"(<meta http-equiv="Content-Security-Policy" content=")" +
           policy +
           "\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n"
           "<meta name=\"referrer\" content=\"no-referrer\">\n" +
           Tag("title", "", title) + "\n<style>" + kPageStyle + "</style>\n</head>\n";
}

std::string Fact(const char *name, const char *kind, const std::string &text) {
    return "<div>" + Tag("dt", "", name) + Tag("dd", Attr("class", kind), text) + "</div>\n";
}

std::string DaemonInWords(const PageData &data) {
    if (!data.local)
        return "on another system";
    return data.daemon.IsRunning() ? "running since " + TimeTag(data.daemon.since) : "not running";
}

std::string Facts(const PageData &data) {
    const Daemon &daemon = data.daemon;
    const auto errors = static_cast<std::size_t>(
        std::count_if(data.problems.begin(), data.problems.end(), [](const Diagnostic &problem) {
            return problem.severity == Severity::Error;
        }));
    const std::size_t warnings = data.problems.size() - errors + data.warnings.size();
    std::string text = Fact("kestcrond",
                            !data.local          ? ""
                            : daemon.IsRunning() ? "good"
                                                 : "bad",
                            DaemonInWords(data));
    if (data.local)
        text += Fact("Machine", daemon.held || daemon.passive ? "warn" : "",
                     std::string(daemon.held ? "held" : "not held") +
                         (daemon.passive ? ", passive" : ""));
    text +=
        Fact("Jobs", "",
             std::to_string(data.jobs.size()) +
                 (daemon.delayed != 0 ? ", " + std::to_string(daemon.delayed) + " launched" : ""));
    text +=
        Fact("Problems",
             errors != 0     ? "bad"
             : warnings != 0 ? "warn"
                             : "good",
             Counted(errors, "error", "errors") + ", " + Counted(warnings, "warning", "warnings"));
    return "<dl class=\"facts\">\n" + text + "</dl>\n";
}

std::string Problems(const PageData &data) {
    std::string items;
    for (const std::string &warning : data.warnings)
        items +=
            Tag("li", "", Tag("strong", R"(class="warn")", "warning") + " " + Html(warning)) + "\n";
    for (const Diagnostic &problem : data.problems) {
        const bool isError = problem.severity == Severity::Error;
        items +=
            Tag("li", Attr("data-job", problem.job + " " + problem.file),
                Class("where", Html(problem.file) + ":" + std::to_string(problem.position.line) +
                                   ":" + std::to_string(problem.position.column)) +
                    Tag("strong", isError ? R"(class="bad")" : R"(class="warn")",
                        isError ? "error" : "warning") +
                    " " + (problem.job.empty() ? "" : Html(problem.job) + ": ") +
                    Html(MessageWithHint(problem))) +
            "\n";
    }
    return "<section>" + Heading("Problems", "of the job files, as check shows them") +
           (items.empty() ? Tag("p", "", "None.") : "<ul class=\"problems\">\n" + items + "</ul>") +
           "</section>\n";
}

std::string NextInHtml(const std::optional<JobStart> &next) {
    if (!next)
        return "never";
    if (next->kept)
        return "kept";
    const std::string first = TimeTag(next->FirstStart());
    return next->IsExact() ? first : first + " to " + TimeTag(next->LastStart());
}

std::string JobRowInHtml(const PageJob &shown, const PageData &data) {
    const LiveJob &job = *shown.job;
    const auto cell = [](const char *label, const std::string &content) {
        return Tag("td", R"(role="cell" )" + Attr("data-label", label), content);
    };
    const std::string last =
        job.lastRun == 0 ? "unknown" : (job.isLogged ? "" : "launched ") + TimeTag(job.lastRun);
    const JobStatusText &status = InWords(JobStatusOf(job, data.daemon));
    return Tag("tr", R"(role="row" )" + Attr("data-job", job.name),
               Tag("th", R"(scope="row" role="rowheader")", Class("name", Html(job.name))) +
                   cell("Account", Html(job.account)) +
                   cell("Schedule",
                        Html(ScheduleInWords(job.job.ScheduleDocument(), job.job.cronFields()))) +
                   cell("Last run", last) + cell("Next run", NextInHtml(shown.next)) +
                   cell("State",
                        Class(ClassOf(status.colour),
                              Html(StatusInWords(job, data.daemon, data.now)) +
                                  (job.failure.empty() ? "" : ": " + Html(job.failure))))) +
           "\n";
}

std::string Jobs(const PageData &data) {
    std::string rows;
    for (const PageJob &job : data.jobs)
        rows += JobRowInHtml(job, data);
    std::string header;
    for (const char *name : {"Job", "Account", "Schedule", "Last run", "Next run", "State"})
        header += Tag("th", R"(scope="col" role="columnheader")", name);
    return "<section>" +
           Heading("Jobs", "in " + Html(data.document) + " of " + Moment(data.saved)) +
           Tag("table", R"(role="table")",
               "\n<thead role=\"rowgroup\"><tr role=\"row\">" + header +
                   "</tr></thead>\n<tbody role=\"rowgroup\">\n" + rows + "</tbody>\n") +
           "</section>\n";
}

std::string UnreadLog() {
    return "<section>" + Heading("The past", "") +
           Tag("p", R"(class="warn")", "The execution log could not be read.") + "</section>\n";
}

std::string Failures(const PageData &data) {
    std::string items;
    for (const PastFailure &failure : data.failures)
        items += Tag("li", Attr("data-job", failure.job),
                     TimeTag(failure.time) + " " + Class("name", Html(failure.job)) + " " +
                         Class("bad", Html(failure.reason))) +
                 "\n";
    return "<section>" + Heading("Last failures", "of the execution log") +
           (items.empty() ? Tag("p", "", "None.") : "<ul class=\"failures\">\n" + items + "</ul>") +
           "</section>\n";
}

} // namespace

std::string PageInHtml(const PageData &data) {
    const std::string title = "Jobs" + (data.host.empty() ? "" : " of " + Html(data.host));
    const Json::Value now = TimeToJson(data.now);
    return Head(title) + "<body>\n<header>" + Tag("h1", "", title) +
           Tag("p", R"(class="quiet")",
               "State of " + TimeTag(data.now) + " (UTC" + now.asString().substr(19) +
                   "), by kestcronctl " + kPageVersion) +
           Facts(data) + "</header>\n<main>\n" + Problems(data) +
           R"(<div class="filter" hidden><label>Filter <input type="search" id="filter" )"
           R"(placeholder="name, account, state"></label><output id="count" )"
           "class=\"quiet\"></output></div>\n" +
           Day(data.coming) + (data.isLogRead ? Day(data.past) : UnreadLog()) + Jobs(data) +
           (data.isLogRead ? Failures(data) : "") + "</main>\n<script>" + kPageScript +
           "</script>\n</body>\n</html>\n";
}

} // namespace kest::ctl
