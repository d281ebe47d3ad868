#include "base/json_members.h"
#include "ctl/check/crontab.h"
#include "ctl/check/definition.h"
#include "ctl/commands/commands.h"
#include "ctl/display/coming_starts.h"
#include "ctl/display/phrases.h"
#include "ctl/display/starts.h"
#include "ctl/display/times.h"
#include "ctl/display/utf8.h"
#include "ctl/system/failure.h"
#include "job/definition.h"
#include "platform/kestutils.h"

#include <iostream>

namespace kest::ctl {

// JSON output: "expression"; "fields", each with "field", "text", "words" and "items", which have
// "text", "type" ("exact", "random" or "any"), "from" and "to"; "draws", each with "schedule" and
// "words", where the first uses the draw of this machine; "next", the first starts of the first
// draw; and "remarks", the diagnostics of a check.

namespace {

constexpr std::size_t kDraws = 3;
constexpr std::size_t kStartsExplained = 5;

std::string ExpressionOf(const ExplainOptions &options) {
    if (options.expression.size() > 1)
        throw Failure("explain takes one expression; write: kestcronctl explain '*/5 * * * *', in "
                      "quotes, so that the shell does not replace \"*\" by file names");
    if (options.period.empty() == options.expression.empty())
        throw Failure("explain requires either an expression in quotes or --period");
    if (options.period.empty())
        return options.expression.front();
    const std::optional<std::string> expression = PeriodCrontab(options.period, "");
    if (!expression)
        throw Failure("\"" + options.period +
                      "\" is not a valid period; expected: a word beginning with h, d, w, m or c");
    if (expression->empty())
        throw Failure("\"" + options.period +
                      R"(" uses the member "crontab"; write: explain EXPRESSION)");
    return *expression;
}

// A definition with the expression.
Json::Value DefinitionWith(const std::string &expression) {
    Json::Value config;
    config["name"] = "explained";
    config["user"] = "root";
    config["period"] = "crontab";
    config["crontab"] = expression;
    config["cmd"] = "true";
    return config;
}

// The diagnostics of a check of the definition, in one line each.
std::vector<std::string> RemarksOn(const Json::Value &config, const CronJob &job,
                                   const std::vector<DefinitionFault> &faults) {
    const std::string noText;
    const JsonPositions nowhere(noText);
    CheckedDefinition checked(config, config, nowhere);
    AddErrors(checked, faults);
    if (job.valid)
        CheckCrontab(checked, job.cronFields());
    std::vector<std::string> remarks;
    for (const Diagnostic &diagnostic : checked.TakeDiagnostics())
        remarks.push_back(MessageWithHint(diagnostic));
    return remarks;
}

std::string ItemInWords(const std::string &key, const CronRange &range) {
    if (range.type == CronRange::Any)
        return "every " + FieldsInWords({key});
    if (range.type == CronRange::Exact)
        return ValueInWords(key, range.from);
    return "random from " + ValueInWords(key, range.from) + " to " + ValueInWords(key, range.to);
}

const char *RedrawInWords(const std::string &key) {
    switch (key.front()) {
    case 'M':
        return "every hour";
    case 'h':
        return "at midnight";
    case 'd':
        return "on the 1st of each month";
    case 'm':
        return "on 1 January";
    default:
        return "every Monday";
    }
}

std::string FieldInWords(const std::string &key, const std::vector<CronRange> &items) {
    std::vector<std::string> texts;
    bool random = false;
    for (const CronRange &item : items) {
        texts.push_back(ItemInWords(key, item));
        random = random || item.type == CronRange::Random;
    }
    return Enumerated(texts) + (random ? std::string(", redrawn ") + RedrawInWords(key) : "");
}

Json::Value FieldToJson(const std::string &key, const std::string &text,
                        const std::vector<CronRange> &items) {
    constexpr const char *types[] = {"exact", "random", "any"};
    const std::vector<std::string> pieces = KESTUtils::StringExplode(text, ",");
    Json::Value json;
    json["field"] = key;
    json["text"] = text;
    json["words"] = FieldInWords(key, items);
    for (std::size_t i = 0; i < items.size(); ++i) {
        Json::Value item;
        item["text"] = pieces.at(i);
        item["type"] = types[items[i].type];
        item["from"] = items[i].type == CronRange::Any ? Json::Value() : items[i].from;
        item["to"] = items[i].type == CronRange::Any      ? Json::Value()
                     : items[i].type == CronRange::Random ? items[i].to
                                                          : items[i].from;
        json["items"].append(item);
    }
    return json;
}

// Possible draws. The first uses the draw of this machine, if known. An expression without random
// items has only one.
std::vector<Json::Value> Draws(const Context &context, CronJob job) {
    const std::optional<ScheduleTemplate> shared = FindTemplate(context.appliance);
    bool random = false;
    for (const auto &[key, items] : job.cronFields())
        for (const CronRange &item : items)
            random = random || item.type == CronRange::Random;
    std::vector<Json::Value> draws;
    for (std::size_t i = 0; i < (random ? kDraws : 1); ++i) {
        for (const std::string &key : FieldKeys())
            job.GenerateFieldSchedule(key,
                                      i == 0 && shared ? shared->GetSingleScheduleValue(key) : -1);
        draws.push_back(job.ScheduleDocument());
    }
    return draws;
}

struct Explanation {
    std::string expression;
    std::vector<std::string> remarks;
    std::vector<std::string> fields;
    CronJob job;
    std::vector<Json::Value> draws;
    std::vector<ComingStart> starts;
};

Json::Value ToJson(const Explanation &explanation) {
    Json::Value json;
    json["expression"] = explanation.expression;
    for (std::size_t i = 0; i < explanation.fields.size(); ++i) {
        const std::string &key = FieldKeys().at(i);
        json["fields"].append(
            FieldToJson(key, explanation.fields[i], explanation.job.cronFields().at(key)));
    }
    json["remarks"] = Json::Value(Json::arrayValue);
    for (const std::string &remark : explanation.remarks)
        json["remarks"].append(remark);
    for (const Json::Value &draw : explanation.draws) {
        Json::Value example;
        example["schedule"] = draw;
        example["words"] = ScheduleInWords(draw, explanation.job.cronFields());
        json["draws"].append(example);
    }
    json["next"] = Json::Value(Json::arrayValue);
    for (const ComingStart &start : explanation.starts)
        json["next"].append(StartToJson(start, false));
    return json;
}

void Write(const Explanation &explanation, const Context &context) {
    Table table({"FIELD", "TEXT", "MEANING"});
    for (std::size_t i = 0; i < explanation.fields.size(); ++i) {
        const std::string &key = FieldKeys().at(i);
        table.Add({FieldsInWords({key}), explanation.fields[i],
                   FieldInWords(key, explanation.job.cronFields().at(key))});
    }
    const Screen &screen = context.screen;
    const auto listed = [&](const std::string &text) {
        std::cout << "  " << Wrapped(screen, text, 2) << "\n";
    };
    std::cout << table.Show(screen) << "\n";
    for (const std::string &remark : explanation.remarks)
        std::cout << Coloured(screen, Colour::Yellow, "Note: ") << Wrapped(screen, Shown(remark), 6)
                  << "\n";
    std::cout << (explanation.remarks.empty() ? "" : "\n")
              << (explanation.draws.size() > 1 ? "For example:\n" : "Schedule:\n");
    for (const Json::Value &draw : explanation.draws)
        listed(ScheduleInWords(draw, explanation.job.cronFields()));
    std::cout << "\nNext starts"
              << (explanation.draws.size() > 1 ? " of the first example:\n" : ":\n");
    for (const ComingStart &start : explanation.starts)
        listed(StartInWords(start, context.now) +
               (start.undrawn.empty()
                    ? ""
                    : ", " + UndrawnInWords(start, explanation.job.cronFields())));
    if (explanation.starts.empty())
        listed("never");
}

} // namespace

int Explain(const Context &context, const ExplainOptions &options) {
    Explanation explanation;
    explanation.expression = ExpressionOf(options);
    std::vector<DefinitionFault> faults;
    Json::Value document;
    document["config"] = DefinitionWith(explanation.expression);
    explanation.job = CronJob(document, faults);
    explanation.remarks = RemarksOn(document["config"], explanation.job, faults);
    if (!explanation.job.valid)
        throw Failure("\"" + explanation.expression + "\" is not a valid crontab expression: " +
                      (explanation.remarks.empty() ? "" : explanation.remarks.front()));
    const std::string misread = options.period.empty() ? "" : MisreadPeriod(options.period);
    for (const std::string &remark :
         {misread, LostRuns(explanation.job.cronFields()), RareDays(explanation.job.cronFields())})
        if (!remark.empty())
            explanation.remarks.push_back(remark);
    explanation.fields = KESTUtils::StringExplode(explanation.expression, " ");
    explanation.draws = Draws(context, explanation.job);
    explanation.starts =
        ComingStarts(explanation.job.cronFields(), explanation.draws.front(),
                     {context.now, context.now, context.now + kCalendarRepeats}, kStartsExplained);
    if (context.json)
        WriteJson(ToJson(explanation));
    else
        Write(explanation, context);
    return 0;
}

} // namespace kest::ctl
