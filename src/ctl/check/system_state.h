// What the checks of job files need about a system: its accounts and programs.

#ifndef CTL_CHECK_SYSTEM_STATE_H
#define CTL_CHECK_SYSTEM_STATE_H

#include "ctl/check/admission.h"
#include "ctl/check/executable.h"
#include "ctl/system/appliance.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest::ctl {

// Looks up accounts, programs and interpreters, each once.
class SystemState {
public:
    // `appliance` must outlive the object.
    explicit SystemState(const Appliance &appliance);

    // Without an account database every account exists.
    Account AccountOf(const Json::Value &config);
    const Program &ProgramAt(const std::string &path, const std::string &account);

private:
    Program Inspect(const std::string &path, const std::string &account);
    std::optional<StartFault> StartFaultAt(const std::string &file, bool isLink);
    const Interpreter &InterpreterAt(const std::string &path);
    bool HasFormat(std::string_view head) const;
    bool IsWritableByOthers(const std::string &directory, bool last,
                            const std::string &account) const;

    const Appliance &appliance_;
    std::map<std::string, bool> accounts_;
    std::map<std::pair<std::string, std::string>, Program> programs_;
    std::map<std::string, Interpreter> interpreters_;
    std::optional<Architecture> architecture_; // nothing if unknown
    std::vector<std::string> formats_;         // the entries of binfmt_misc
};

} // namespace kest::ctl

#endif
