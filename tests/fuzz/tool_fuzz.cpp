// Passes a text to the parsers of kestcronctl: as the first bytes of a program and of its
// interpreter, as a line of the execution log and of a crontab, and as arguments. What is imported
// from a crontab must be valid jobs.

#include "core/job_files.h"
#include "ctl/check/executable.h"
#include "ctl/display/times.h"
#include "ctl/import/import.h"
#include "ctl/system/failure.h"
#include "ctl/system/log_line.h"
#include "ctl/system/rotated_logs.h"
#include "tests/fuzz/support/checks.h"

#include <elf.h>

namespace kest::ctl {

namespace {

// The interpreter of a program is the second half of the input.
void TryProgram(const std::string &text) {
    const std::string interpreter = text.substr(text.size() / 2);
    StartEnvironment environment;
    environment.architecture = Architecture{EM_ARM, false, false};
    environment.interpreter = [&](const std::string &path) {
        return Interpreter{path.empty() ? Interpreter::State::Missing
                                        : Interpreter::State::Executable,
                           interpreter};
    };
    environment.hasFormat = [&](std::string_view head) { return IsOfFormat(interpreter, head); };
    const auto fault = StartFaultOf(text, environment);
    Require(!fault || !fault->text.empty(), "a fault has a text");
    ArchitectureOf(text);
}

void TryLogLine(const std::string &text) {
    const LogLine line = ParseLogLine(text);
    Require(line.stamp + line.text == text, "a line is its timestamp and its text");
    Require(!(line.started && line.failed), "a line is a start or a failure");
    Require(line.failed == !line.reason.empty(), "a failure has a reason");
    if (const auto name = ReadRotatedName(text)) {
        Require(name->rotation + name->compression == text, "a name is divided into its parts");
        Require(!name->IsOlderThan(*name), "no file is older than itself");
    }
}

void TryCrontab(const std::string &text, bool userColumn) {
    ImportSettings settings{"crontab", userColumn, "root", "/usr/bin/env",
                            [](const std::string &account) -> std::optional<std::string> {
                                return account == "root" ? std::optional<std::string>("/root")
                                                         : std::nullopt;
                            }};
    try {
        const std::vector<ImportedLine> lines = ImportCrontab(text, settings);
        for (const ImportedLine &line : lines)
            for (const Json::Value &definition : line.jobs) {
                Json::Value document;
                document["config"] = definition;
                std::vector<DefinitionFault> faults;
                Require(CronJob(document, faults).valid, "an imported job is valid");
            }
        Json::Value document;
        Require(ReadDocument(JobFileText(lines, settings), kJobFileLimits, document),
                "a job file that was written can be read");
    } catch (const Failure &) { // too many jobs
    }
}

} // namespace

} // namespace kest::ctl

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(kest::StartInput(data, size));
    kest::ctl::TryProgram(text);
    kest::ctl::TryLogLine(text);
    kest::ctl::TryCrontab(text, false);
    kest::ctl::TryCrontab(text, true);
    kest::ctl::ReadTime(text, 1780366210);
    return 0;
}
