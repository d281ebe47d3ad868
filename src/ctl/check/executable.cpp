#include "ctl/check/executable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <elf.h>
#include <sstream>
#include <utility>

namespace kest::ctl {

namespace {

// --- ELF ----------------------------------------------------------------------------------------

bool IsElf(std::string_view head) {
    return head.substr(0, SELFMAG) == std::string_view(ELFMAG, SELFMAG);
}

// The fields of an ELF program. What lies beyond its first bytes is absent.
class ElfHead {
public:
    explicit ElfHead(std::string_view bytes)
        : bytes_(bytes), is64_(ByteAt(EI_CLASS) == ELFCLASS64),
          isBigEndian_(ByteAt(EI_DATA) == ELFDATA2MSB) {}

    bool IsProgram() const {
        const std::uint64_t type = Number(16, 2).value_or(ET_NONE);
        const bool hasClass = is64_ || ByteAt(EI_CLASS) == ELFCLASS32;
        return hasClass && (type == ET_EXEC || type == ET_DYN);
    }
    std::optional<Architecture> GetArchitecture() const {
        const std::optional<std::uint64_t> machine = Number(18, 2);
        if (!machine)
            return std::nullopt;
        return Architecture{static_cast<unsigned>(*machine), is64_, isBigEndian_};
    }
    // The path of the dynamic loader; empty if it has none or that is unknown.
    std::string Loader() const;

private:
    int ByteAt(std::size_t offset) const {
        return offset < bytes_.size() ? static_cast<unsigned char>(bytes_[offset]) : -1;
    }
    std::optional<std::uint64_t> Number(std::uint64_t offset, std::size_t size) const;

    std::string_view bytes_;
    bool is64_;
    bool isBigEndian_;
};

std::optional<std::uint64_t> ElfHead::Number(std::uint64_t offset, std::size_t size) const {
    if (offset > bytes_.size() || bytes_.size() - offset < size)
        return std::nullopt;
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t next =
            static_cast<std::size_t>(offset) + (isBigEndian_ ? i : size - 1 - i);
        number = number << 8U | static_cast<unsigned char>(bytes_[next]);
    }
    return number;
}

std::string ElfHead::Loader() const {
    const std::size_t word = is64_ ? 8 : 4;
    const std::optional<std::uint64_t> table = Number(is64_ ? 32 : 28, word);
    const std::optional<std::uint64_t> entrySize = Number(is64_ ? 54 : 42, 2);
    const std::optional<std::uint64_t> entries = Number(is64_ ? 56 : 44, 2);
    if (!table || *table > bytes_.size() || !entrySize || !entries)
        return {};
    for (std::uint64_t i = 0; i < *entries; ++i) {
        const std::uint64_t entry = *table + i * *entrySize;
        const std::optional<std::uint64_t> type = Number(entry, 4);
        const std::optional<std::uint64_t> offset = Number(entry + (is64_ ? 8 : 4), word);
        const std::optional<std::uint64_t> size = Number(entry + (is64_ ? 32 : 16), word);
        if (!type || !offset || !size)
            return {};
        if (*type != PT_INTERP)
            continue;
        if (*offset > bytes_.size() || *size > bytes_.size() - *offset)
            return {};
        const std::string_view path =
            bytes_.substr(static_cast<std::size_t>(*offset), static_cast<std::size_t>(*size));
        return std::string(path.substr(0, path.find('\0')));
    }
    return {};
}

std::string InWords(const Architecture &architecture) {
    constexpr std::array<std::pair<unsigned, const char *>, 11> names{{{EM_386, "x86"},
                                                                       {EM_X86_64, "x86-64"},
                                                                       {EM_ARM, "ARM"},
                                                                       {EM_AARCH64, "AArch64"},
                                                                       {EM_MIPS, "MIPS"},
                                                                       {EM_PPC, "PowerPC"},
                                                                       {EM_PPC64, "PowerPC64"},
                                                                       {EM_S390, "S390"},
                                                                       {EM_SPARCV9, "SPARC"},
                                                                       {EM_RISCV, "RISC-V"},
                                                                       {258, "LoongArch"}}};
    const auto *const name = std::find_if(names.begin(), names.end(), [&](const auto &row) {
        return row.first == architecture.machine;
    });
    return (name != names.end() ? name->second
                                : "machine " + std::to_string(architecture.machine)) +
           (architecture.is64 ? ", 64 bits" : ", 32 bits") +
           (architecture.isBigEndian ? ", big-endian" : "");
}

// Whether a system runs the programs of an architecture, as far as that is known: those of its own,
// and 32-bit programs of its family, if its kernel is configured so.
bool MayRun(const Architecture &system, const Architecture &program) {
    const auto family = [](unsigned machine) {
        switch (machine) {
        case EM_X86_64:
            return static_cast<unsigned>(EM_386);
        case EM_AARCH64:
            return static_cast<unsigned>(EM_ARM);
        case EM_PPC64:
            return static_cast<unsigned>(EM_PPC);
        default:
            return machine;
        }
    };
    return family(system.machine) == family(program.machine) &&
           system.isBigEndian == program.isBigEndian && (system.is64 || !program.is64);
}

// --- Scripts ------------------------------------------------------------------------------------

bool IsScript(std::string_view head) {
    return head.substr(0, 2) == "#!";
}

// The interpreter of a script, as the kernel reads its first line; empty if that is not valid.
std::string InterpreterOf(std::string_view head) {
    constexpr std::size_t most = 256; // bytes that the kernel reads
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    const bool isComplete = head.size() < most;
    head = head.substr(0, most);
    const std::size_t newline = head.find('\n');
    std::string_view line = head.substr(0, newline).substr(2);
    while (!line.empty() && isBlank(line.front()))
        line.remove_prefix(1);
    const auto *const end =
        std::find_if(line.begin(), line.end(), [&](char c) { return isBlank(c) || c == '\0'; });
    const bool isCut = end == line.end() && newline == std::string_view::npos && !isComplete;
    return isCut ? "" : std::string(line.begin(), end);
}

// --- Files --------------------------------------------------------------------------------------

StartFault FaultOfInterpreter(const std::string &path, const std::string &fault) {
    const bool hasReturn = !path.empty() && path.back() == '\r';
    return {"its interpreter " + Quoted(path) + " " + fault,
            hasReturn ? Advice("lines that end without a carriage return") : Hint{}};
}

// The fault of a file by itself, apart from its interpreter.
std::optional<StartFault> FormatFault(std::string_view head, const StartEnvironment &environment) {
    if (IsScript(head) && InterpreterOf(head).empty())
        return StartFault{"the kernel finds no interpreter in its first line", Advice("#!/bin/sh")};
    if (IsScript(head))
        return std::nullopt;
    if (environment.hasFormat(head))
        return std::nullopt;
    if (!IsElf(head))
        return StartFault{R"(it begins neither with "#!" nor as an ELF program)",
                          Advice("#!/bin/sh as the first line of a shell script")};
    if (!ElfHead(head).IsProgram())
        return StartFault{"it is an ELF file, but not a program", {}};
    return std::nullopt;
}

// The fault of an ELF program that is for another system.
std::optional<StartFault> ArchitectureFault(std::string_view head,
                                            const StartEnvironment &environment) {
    const std::optional<Architecture> program = ArchitectureOf(head);
    const std::optional<Architecture> &system = environment.architecture;
    if (!program || !system || MayRun(*system, *program) || environment.hasFormat(head))
        return std::nullopt;
    return StartFault{"it is for " + InWords(*program) + ", and the system is " + InWords(*system),
                      {}};
}

// The file that the kernel opens in order to start a file; empty if there is none.
std::string NeededBy(std::string_view head) {
    if (IsScript(head))
        return InterpreterOf(head);
    return IsElf(head) ? ElfHead(head).Loader() : "";
}

const char *FaultOf(Interpreter::State state) {
    switch (state) {
    case Interpreter::State::Missing:
        return "does not exist";
    case Interpreter::State::NotRegular:
        return "is not a regular file";
    case Interpreter::State::NotExecutable:
        return "is not executable";
    default:
        return nullptr;
    }
}

} // namespace

std::optional<Architecture> ArchitectureOf(std::string_view head) {
    return IsElf(head) ? ElfHead(head).GetArchitecture() : std::nullopt;
}

bool IsOfFormat(const std::string &entry, std::string_view head) {
    std::istringstream stream(entry);
    std::string status;
    std::size_t offset = 0;
    std::string magic;
    std::string mask;
    stream >> status;
    for (std::string word; stream >> word;)
        if (word == "offset")
            stream >> offset;
        else if (word == "magic")
            stream >> magic;
        else if (word == "mask")
            stream >> mask;
    const auto byteAt = [](const std::string &digits, std::size_t index) {
        const std::string byte = digits.substr(2 * index, 2);
        return std::all_of(byte.begin(), byte.end(),
                           [](unsigned char c) { return std::isxdigit(c) != 0; })
                   ? std::stoul("0" + byte, nullptr, 16)
                   : 0U;
    };
    if (status != "enabled" || magic.empty() || offset > head.size() ||
        magic.size() / 2 > head.size() - offset)
        return false;
    for (std::size_t i = 0; i < magic.size() / 2; ++i) {
        const unsigned long bits = mask.size() == magic.size() ? byteAt(mask, i) : 0xFFU;
        if ((static_cast<unsigned char>(head[offset + i]) & bits) != (byteAt(magic, i) & bits))
            return false;
    }
    return true;
}

std::optional<StartFault> StartFaultOf(std::string_view head, const StartEnvironment &environment) {
    constexpr int mostFiles = 6; // of the kernel: scripts, and the program that reads the last one
    if (auto fault = FormatFault(head, environment))
        return fault;
    if (auto fault = ArchitectureFault(head, environment))
        return fault;
    std::string present(head);
    for (int files = 1;; ++files) {
        const std::string path = NeededBy(present);
        if (path.empty())
            return std::nullopt;
        if (files == mostFiles && IsScript(present))
            return StartFault{
                "its interpreter is a script whose interpreter is a script, and so on", {}};
        Interpreter interpreter = environment.interpreter(path);
        if (const char *const fault = FaultOf(interpreter.state))
            return FaultOfInterpreter(path, fault);
        // The loader of an ELF program is mapped, not started.
        if (!IsScript(present) || interpreter.head.empty())
            return std::nullopt;
        if (FormatFault(interpreter.head, environment))
            return FaultOfInterpreter(path, "cannot be started");
        if (const auto fault = ArchitectureFault(interpreter.head, environment))
            return FaultOfInterpreter(path, "cannot be started: " + fault->text);
        present = std::move(interpreter.head);
    }
}

} // namespace kest::ctl
