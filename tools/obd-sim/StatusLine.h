// One line on a terminal, rewritten in place while the simulator runs; log lines printed
// meanwhile go above it.
//
// A carriage return and the erase-to-end-of-line sequence (ESC [ K) are all it takes, and every
// terminal in use understands them; a terminal library (terminfo, curses) would add a link
// dependency to the target build for nothing more.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

namespace obdsim {

class StatusLine {
  public:
    // `out` is a terminal. `errShared`: stderr is a terminal too, so a log line must clear the
    // status line first.
    StatusLine(FILE* out, bool errShared) : m_out(out), m_errShared(errShared) {}

    // Rewrites the line, cut to the terminal's width so that it never wraps.
    void Show(const std::string& text);
    // Prints a log line on stderr without leaving a half status line behind.
    void Log(const std::string& line);
    // Removes the line, before the summary.
    void Clear();

  private:
    void Draw();

    FILE* m_out;
    bool m_errShared;
    std::mutex m_mutex;  // guards m_text and the terminal
    std::string m_text;
};

}  // namespace obdsim
