#ifndef LODESTONE_TOOLS_DESCRIBECOMMAND_H
#define LODESTONE_TOOLS_DESCRIBECOMMAND_H

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace Lodestone
{

/// The command line of lodestone-describe.
class DescribeCommand
{
public:
    /// Results are written to `out` unless --output names a file, errors as one line to `err`.
    DescribeCommand(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

    /// `arguments` are those behind the program's name. Returns the exit code: 0; 1 if the result can't be
    /// written; 2 for wrong arguments, for a layout that can't be read and for one that is refused.
    int run(const std::vector<std::string>& arguments);

private:
    typedef std::vector<std::string> Arguments;
    enum class Form
    {
        NONE,
        HELP,
        BINARY,
        SOURCE,
        HEADER,
        DUMP
    };

    void parseArguments(const Arguments& arguments);
    void setForm(Form form);
    std::string makeResult() const;
    bool writeResult(const std::string& result) const;

    std::ostream& m_out;
    std::ostream& m_err;
    Form m_form = Form::NONE;
    std::string m_layoutFile;
    std::string m_name;       // of the getter, for SOURCE and HEADER
    std::string m_headerFile; // that SOURCE includes
    std::string m_outputFile; // empty: m_out
    std::size_t m_arraySize = 0;
};

} // namespace Lodestone

#endif
