#include "Screen.h"

#include <sys/ioctl.h>

namespace LodestoneTap
{

void Screen::show(const std::vector<std::string>& lines)
{
    if (m_terminal != -1) {
        showInPlace(lines);
    } else {
        m_out << (m_isFirst ? "" : "\n");
        for (const std::string& line : lines) {
            m_out << line << '\n';
        }
    }
    m_isFirst = false;
    m_out.flush();
}

void Screen::showInPlace(std::vector<std::string> lines)
{
    winsize window = {};
    const bool known = ioctl(m_terminal, TIOCGWINSZ, &window) == 0 && window.ws_row > 1 && window.ws_col > 1;
    const std::size_t rows = known ? window.ws_row - 1U : 23; // the last row is the cursor's
    const std::size_t columns = known ? window.ws_col - 1U : 79;
    if (lines.size() > rows) {
        const std::size_t hidden = lines.size() - rows + 1;
        lines.resize(rows);
        lines.back() = "... " + std::to_string(hidden) + " more lines, the window is too small";
    }
    if (m_linesAbove > 0) {
        m_out << "\x1b[" << m_linesAbove << "A\r"; // up to the first line of the picture before
    }
    for (const std::string& line : lines) {
        m_out << line.substr(0, columns) << "\x1b[K\n"; // clears what the old line has beyond the new one
    }
    m_out << "\x1b[J"; // and the lines that the picture before had more
    m_linesAbove = lines.size();
}

} // namespace LodestoneTap
