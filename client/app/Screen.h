#ifndef LODESTONE_CLIENT_SCREEN_H
#define LODESTONE_CLIENT_SCREEN_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace LodestoneTap
{

/// Where the pictures go: redrawn in place on a terminal, one block after the other elsewhere.
class Screen
{
public:
    /// Borrows `out`. `terminal` is the descriptor behind it if that is a terminal that understands cursor
    /// movements, else -1.
    Screen(std::ostream& out, int terminal) : m_out(out), m_terminal(terminal) {}

    /// Shows a picture of several lines. On a terminal it covers the one before, and what is larger than the
    /// window is cut off, for a picture that scrolls can't be covered. The cursor stays below the picture, so
    /// that whatever ends the program finds the terminal in order.
    void show(const std::vector<std::string>& lines);

private:
    void showInPlace(std::vector<std::string> lines);

    std::ostream& m_out;
    int m_terminal;
    std::size_t m_linesAbove = 0; // of the picture on the terminal
    bool m_isFirst = true;
};

} // namespace LodestoneTap

#endif
