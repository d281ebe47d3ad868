// Passes a template file to the daemon. A rejected template changes nothing. An accepted one is a
// valid job; delays are never negative and never exceed its "maxDelay"; and it is unchanged after a
// save and a load.

#include "core/launch.h"
#include "tests/fuzz/support/checks.h"
#include "tests/fuzz/support/machine.h"

namespace kest {

namespace {

// "maxDelay" is kept outside the document and is only added to it for a save.
bool AreSame(const ScheduleTemplate &one, const ScheduleTemplate &other) {
    Json::Value document = one.Document();
    Json::Value otherDocument = other.Document();
    if (document.isObject())
        document.removeMember("maxDelay");
    if (otherDocument.isObject())
        otherDocument.removeMember("maxDelay");
    return document == otherDocument && one.maxDelay == other.maxDelay && one.valid == other.valid;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view text = StartInput(data, size);
    const ScheduleTemplate before;
    ScheduleTemplate loaded = before;
    if (!LoadScheduleTemplate(loaded, WriteInput(text))) {
        Require(AreSame(loaded, before), "a rejected template changes nothing");
        return 0;
    }
    Require(loaded.valid && loaded.maxDelay >= 0, "a loaded template is valid");
    for (const std::size_t launches : {1U, 2U, 3U, 100000U}) {
        const std::int32_t spacing = LaunchSpacing(loaded.maxDelay, launches);
        Require(spacing >= 0 && spacing <= loaded.maxDelay, "no delay exceeds maxDelay");
    }
    const std::string path = ScratchDirectory() + "/template";
    Require(SaveScheduleTemplate(loaded, path, Durability::Process), "a template can be saved");
    ScheduleTemplate again = before;
    const bool isLoaded = LoadScheduleTemplate(again, path);
    // Bytes that are not UTF-8 are replaced in a save, which may make the template invalid.
    if (IsPlain(text))
        Require(isLoaded && AreSame(again, loaded), "a template survives a restart");
    Require(isLoaded || AreSame(again, before), "a rejected template changes nothing");
    TryJob(loaded);
    return 0;
}

} // namespace kest
