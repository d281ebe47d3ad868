// Long output on a terminal.

#ifndef CTL_DISPLAY_PAGER_H
#define CTL_DISPLAY_PAGER_H

#include "ctl/display/screen.h"

#include <string>
#include <sys/types.h>

namespace kest::ctl {

// Passes text to standard output, through a pager if the text does not fit on the screen. The pager
// is $PAGER, otherwise "less" or "more"; there is none if $PAGER is empty or "cat". For a caller
// who got the privileges by sudo, doas or pkexec it is always "less", and without its commands that
// run programs or write files.
class Pager {
public:
    // Without `isAllowed`, or on a screen that is not a terminal, there is no pager.
    Pager(const Screen &screen, bool isAllowed);
    Pager(const Pager &) = delete;
    Pager &operator=(const Pager &) = delete;
    // Writes what is left and waits until the reader leaves the pager.
    ~Pager();

    void Write(const std::string &text);

private:
    void Pass();
    void Start();

    Screen screen_;
    std::string held_;     // text that still fits on the screen
    std::size_t rows_ = 0; // that it takes
    bool isHeld_;
    pid_t pid_ = -1;
};

} // namespace kest::ctl

#endif
