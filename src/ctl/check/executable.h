// Whether the kernel can start a program, judged by its first bytes.

#ifndef CTL_CHECK_EXECUTABLE_H
#define CTL_CHECK_EXECUTABLE_H

#include "ctl/check/diagnostic.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kest::ctl {

// The bytes at the beginning of a program that matter here.
constexpr std::size_t kProgramHead = 4096;

struct Architecture {
    unsigned machine = 0; // EM_* of <elf.h>
    bool is64 = false;
    bool isBigEndian = false;
};

// The architecture of a program, given its first bytes; nothing if it is not in the ELF format.
std::optional<Architecture> ArchitectureOf(std::string_view head);

// Whether a program begins as `entry` describes, the text of an entry of binfmt_misc. Such programs
// are started by an interpreter that the system has for them.
bool IsOfFormat(const std::string &entry, std::string_view head);

// A file that a program names as its interpreter.
struct Interpreter {
    enum class State { Unknown, Missing, NotRegular, NotExecutable, Executable };
    State state = State::Unknown;
    std::string head; // its first bytes; empty if unknown
};

// The system on which a program is started.
struct StartEnvironment {
    std::optional<Architecture> architecture; // nothing if unknown
    std::function<Interpreter(const std::string &path)> interpreter;
    std::function<bool(std::string_view head)> hasFormat; // beside ELF and scripts
};

struct StartFault {
    std::string text; // a clause about "it", the program
    Hint hint;
};

// Why a program that begins with `head` cannot be started; nothing if it can, or if that is
// unknown. The file must not be empty.
std::optional<StartFault> StartFaultOf(std::string_view head, const StartEnvironment &environment);

} // namespace kest::ctl

#endif
