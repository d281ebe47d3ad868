#include "ctl/check/executable.h"

#include <elf.h>
#include <gtest/gtest.h>

namespace kest::ctl {

namespace {

struct ElfOptions {
    bool is64 = true;
    bool isBigEndian = false;
    unsigned type = ET_DYN;
    unsigned machine = EM_X86_64;
    std::string loader;
};

void Put(std::string &bytes, std::size_t offset, std::size_t size, std::uint64_t number,
         bool isBigEndian) {
    for (std::size_t i = 0; i < size; ++i)
        bytes[offset + i] =
            static_cast<char>(number >> 8U * static_cast<unsigned>(isBigEndian ? size - 1 - i : i));
}

// A file header and, with a loader, two program headers.
std::string Elf(const ElfOptions &options) {
    const std::size_t header = options.is64 ? 64 : 52;
    const std::size_t entry = options.is64 ? 56 : 32;
    const std::size_t word = options.is64 ? 8 : 4;
    std::string bytes(header + 2 * entry, '\0');
    bytes.replace(0, SELFMAG, ELFMAG);
    const auto put = [&](std::size_t offset, std::size_t size, std::uint64_t number) {
        Put(bytes, offset, size, number, options.isBigEndian);
    };
    put(EI_CLASS, 1, options.is64 ? ELFCLASS64 : ELFCLASS32);
    put(EI_DATA, 1, options.isBigEndian ? ELFDATA2MSB : ELFDATA2LSB);
    put(16, 2, options.type);
    put(18, 2, options.machine);
    if (options.loader.empty())
        return bytes;
    put(options.is64 ? 32 : 28, word, header);
    put(options.is64 ? 54 : 42, 2, entry);
    put(options.is64 ? 56 : 44, 2, 2);
    put(header, 4, PT_LOAD);
    put(header + entry, 4, PT_INTERP);
    put(header + entry + (options.is64 ? 8 : 4), word, bytes.size());
    put(header + entry + (options.is64 ? 32 : 16), word, options.loader.size() + 1);
    return bytes + options.loader + '\0';
}

// A 64-bit PC with a few interpreters.
StartEnvironment APc() {
    using State = Interpreter::State;
    StartEnvironment environment;
    environment.architecture = Architecture{EM_X86_64, true, false};
    environment.hasFormat = [](std::string_view head) { return head.substr(0, 2) == "MZ"; };
    environment.interpreter = [](const std::string &path) -> Interpreter {
        if (path == "/bin/sh" || path == "/lib/ld.so")
            return {State::Executable, Elf({})};
        if (path == "/bin/of-other")
            return {State::Executable, Elf({true, true, ET_EXEC, EM_S390, ""})};
        if (path == "/bin/script")
            return {State::Executable, "#! /bin/sh -e\n"};
        // Scripts that are interpreters of each other.
        if (path == "/bin/s1")
            return {State::Executable, "#!/bin/sh\n"};
        for (const int number : {2, 3, 4, 5})
            if (path == "/bin/s" + std::to_string(number))
                return {State::Executable, "#!/bin/s" + std::to_string(number - 1) + "\n"};
        if (path == "/bin/loop")
            return {State::Executable, "#!/bin/loop\n"};
        if (path == "/bin/text")
            return {State::Executable, "text"};
        if (path == "/bin/secret")
            return {};
        if (path == "/bin/plain")
            return {State::NotExecutable, ""};
        return {path == "/bin" ? State::NotRegular : State::Missing, ""};
    };
    return environment;
}

std::string FaultOf(const std::string &head) {
    const std::optional<StartFault> fault = StartFaultOf(head, APc());
    if (!fault)
        return "";
    return fault->text + (fault->hint.text.empty() ? "" : " (" + fault->hint.text + ")");
}

TEST(StartFaultOf, JudgesScriptsAsTheKernelDoes) {
    const std::string noInterpreter =
        "the kernel finds no interpreter in its first line (#!/bin/sh)";
    const std::string neither = "it begins neither with \"#!\" nor as an ELF program (#!/bin/sh as "
                                "the first line of a shell script)";
    const struct {
        std::string head;
        std::string fault;
    } rows[] = {
        {"#!/bin/sh", ""},
        {"#!/bin/sh\necho", ""},
        {"#! \t/bin/sh\t-e x\n", ""},
        {std::string("#!/bin/sh\0junk", 14), ""},
        {"#!/bin/sh " + std::string(300, 'x'), ""},
        {"#!/bin/script\n", ""},
        {"#!/bin/secret\n", ""},
        {"#!/bin/s4\n", ""},
        {"MZ", ""},
        {"#!", noInterpreter},
        {"#!\n/bin/sh\n", noInterpreter},
        {"#! \t\n", noInterpreter},
        {"#!" + std::string(300, ' ') + "/bin/sh\n", noInterpreter},
        {"#!/" + std::string(300, 'x') + "\n", noInterpreter},
        {"# !/bin/sh\n", neither},
        {"\n#!/bin/sh\n", neither},
        {"\xEF\xBB\xBF#!/bin/sh\n", neither},
        {"echo\n", neither},
        {"\x7f"
         "EL",
         neither},
        {"#!/bin/none\n", "its interpreter \"/bin/none\" does not exist"},
        {"#!/bin/sh\r\n", "its interpreter \"/bin/sh\\r\" does not exist (lines that end without a "
                          "carriage return)"},
        {"#!/bin\n", "its interpreter \"/bin\" is not a regular file"},
        {"#!/bin/plain\n", "its interpreter \"/bin/plain\" is not executable"},
        {"#!/bin/text\n", "its interpreter \"/bin/text\" cannot be started"},
        {"#!/bin/s5\n", "its interpreter is a script whose interpreter is a script, and so on"},
        {"#!/bin/loop\n", "its interpreter is a script whose interpreter is a script, and so on"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(FaultOf(row.head), row.fault) << row.head;
}

TEST(StartFaultOf, JudgesElfPrograms) {
    const struct {
        ElfOptions options;
        std::string fault;
    } rows[] = {
        {{}, ""},
        {{true, false, ET_EXEC, EM_X86_64, "/lib/ld.so"}, ""},
        // The kernel may be configured to run it.
        {{false, false, ET_EXEC, EM_386, "/lib/ld.so"}, ""},
        {{false, false, ET_DYN, EM_X86_64, ""}, ""},
        {{false, false, ET_EXEC, EM_386, "/lib/none.so"},
         "its interpreter \"/lib/none.so\" does not exist"},
        {{true, false, ET_DYN, EM_X86_64, "/lib/none.so"},
         "its interpreter \"/lib/none.so\" does not exist"},
        {{true, false, ET_REL, EM_X86_64, ""}, "it is an ELF file, but not a program"},
        {{true, false, ET_CORE, EM_AARCH64, ""}, "it is an ELF file, but not a program"},
        {{false, false, ET_EXEC, EM_ARM, "/lib/none.so"},
         "it is for ARM, 32 bits, and the system is x86-64, 64 bits"},
        {{true, true, ET_EXEC, EM_S390, ""},
         "it is for S390, 64 bits, big-endian, and the system is x86-64, 64 bits"},
        {{true, false, ET_EXEC, 4711, ""},
         "it is for machine 4711, 64 bits, and the system is x86-64, 64 bits"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(FaultOf(Elf(row.options)), row.fault) << row.options.machine;
    EXPECT_EQ(FaultOf("#!/bin/of-other\n").substr(0, 60),
              "its interpreter \"/bin/of-other\" cannot be started: it is for");
}

TEST(StartFaultOf, DoesNotGuessTheArchitectureOfTheSystem) {
    StartEnvironment environment = APc();
    environment.architecture.reset();
    EXPECT_FALSE(StartFaultOf(Elf({true, true, ET_EXEC, EM_S390, ""}), environment));
    environment.architecture = Architecture{EM_ARM, false, false};
    EXPECT_TRUE(StartFaultOf(Elf({true, false, ET_EXEC, EM_AARCH64, ""}), environment));
    EXPECT_FALSE(StartFaultOf(Elf({false, false, ET_EXEC, EM_ARM, ""}), environment));
}

TEST(StartFaultOf, AllowsPartsOfPrograms) {
    for (const bool is64 : {true, false})
        for (const bool isBigEndian : {true, false}) {
            const unsigned machine = isBigEndian ? EM_PPC64 : EM_X86_64;
            StartEnvironment environment = APc();
            environment.architecture = Architecture{machine, is64, isBigEndian};
            const std::string whole = Elf({is64, isBigEndian, ET_EXEC, machine, "/lib/none.so"});
            EXPECT_TRUE(StartFaultOf(whole, environment));
            for (std::size_t size = 0; size < whole.size(); ++size) {
                const auto fault = StartFaultOf(whole.substr(0, size), environment);
                EXPECT_EQ(fault.has_value(), size < 18) << size;
            }
        }
}

TEST(IsOfFormat, ComparesWithTheMask) {
    const std::string head = "\x7f"
                             "ELF\x01\x01";
    const struct {
        const char *entry;
        bool matches;
    } rows[] = {
        {"enabled\ninterpreter /x\nflags: PF\noffset 0\nmagic 7f454c46\n", true},
        {"enabled\ninterpreter /x\nflags: \noffset 0\nmagic 7f454c460201\nmask ffffffff00ff\n",
         true},
        {"enabled\ninterpreter /x\nflags: \noffset 0\nmagic 7f454c460201\nmask ffffffffffff\n",
         false},
        {"enabled\ninterpreter /x\nflags: \noffset 4\nmagic 0101\n", true},
        {"enabled\ninterpreter /x\nflags: \noffset 5\nmagic 0101\n", false},
        {"enabled\ninterpreter /x\nflags: \noffset 4711\nmagic 01\n", false},
        {"disabled\ninterpreter /x\nflags: \noffset 0\nmagic 7f454c46\n", false},
        {"enabled\ninterpreter /x\nflags: \nextension .py\n", false},
        {"enabled\noffset x\nmagic zz\n", false},
        {"", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(IsOfFormat(row.entry, head), row.matches) << row.entry;
}

} // namespace

} // namespace kest::ctl
