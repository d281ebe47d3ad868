// Feeds a template file to the daemon. One that is refused changes nothing. One that is taken is a
// valid job whose delay is never negative and never exceeded, and saving it and loading it again
// makes no difference.

#include "core/launch.h"
#include "tests/fuzz/support/checks.h"
#include "tests/fuzz/support/machine.h"

namespace kest {

namespace {

// "maxDelay" is kept beside the document and written into it only to be saved.
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
        Require(AreSame(loaded, before), "a template that is refused changes nothing");
        return 0;
    }
    Require(loaded.valid && loaded.maxDelay >= 0, "a loaded template can be used");
    for (const std::size_t launches : {1U, 2U, 3U, 100000U}) {
        const std::int32_t spacing = LaunchSpacing(loaded.maxDelay, launches);
        Require(spacing >= 0 && spacing <= loaded.maxDelay, "no delay exceeds the template's");
    }
    const std::string path = ScratchDirectory() + "/template";
    Require(SaveScheduleTemplate(loaded, path, Durability::Process), "a template can be saved");
    ScheduleTemplate again = before;
    const bool isLoaded = LoadScheduleTemplate(again, path);
    // What is not UTF-8 is written as something else, which may be no template any more.
    if (IsPlain(text))
        Require(isLoaded && AreSame(again, loaded), "a template outlives a restart");
    Require(isLoaded || AreSame(again, before), "a template that is refused changes nothing");
    TryJob(loaded);
    return 0;
}

} // namespace kest
