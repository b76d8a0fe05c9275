#include "DescribeCommand.h"

#include "DescriptionEncoder.h"
#include "DescriptionWriter.h"
#include "LayoutParser.h"

#include <exception>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace Lodestone
{

namespace
{

const std::size_t MAX_ARRAY_SIZE = 1U << 24U;

const char HELP[] =
    R"(usage: lodestone-describe LAYOUT (--binary | --source NAME | --header NAME | --dump)
                          [--size N] [--include HEADER] [--output FILE]

Makes the description of a record that is sent on channel N, for channel N + 1.

  --binary          the array as it is sent
  --source NAME     C and C++ source with the array and its getter sondeGet_NAME
  --header NAME     header for that source; C++ can check a record against the layout with it
  --dump            a table for people
  --size N          bytes of the array; without it, the next multiple of 64 that has room
  --include HEADER  the header that the source includes, "sonde_NAME.h" without it
  --output FILE     instead of standard output

A layout (lines; '#' begins a comment; offsets are from the start of the enclosing structure):

  record Name size 24 extent 24      # extent is only carried; the record's size without it
      int32 counter at 0             # int8 to int64, uint8 to uint64, float32, float64
      struct pairs[2] at 8 size 8
          float32 values[2] at 0
      end
  end

Exit code: 0, 1 if the result can't be written, 2 for wrong arguments or a wrong layout.
)";

std::size_t parseSize(const std::string& text)
{
    std::size_t size = 0;
    if (!text.empty() && text.size() <= 8 && text.find_first_not_of("0123456789") == std::string::npos) {
        size = std::stoul(text);
    }
    if (size == 0 || size > MAX_ARRAY_SIZE) {
        throw std::runtime_error("--size: '" + text + "' is no number from 1 to " +
                                 std::to_string(MAX_ARRAY_SIZE));
    }
    return size;
}

} // namespace

int DescribeCommand::run(const Arguments& arguments)
{
    try {
        parseArguments(arguments);
        const std::string result = makeResult();
        if (!writeResult(result)) {
            m_err << "lodestone-describe: can't write "
                  << (m_outputFile.empty() ? "the result" : m_outputFile) << "\n";
            return 1;
        }
        return 0;
    } catch (const std::exception& e) {
        m_err << "lodestone-describe: " << e.what() << "\n";
        return 2;
    }
}

void DescribeCommand::parseArguments(const Arguments& arguments)
{
    for (auto it = arguments.begin(); it != arguments.end(); ++it) {
        const std::string& option = *it;
        const auto value = [&]() -> const std::string& {
            if (++it == arguments.end()) {
                throw std::runtime_error(option + " needs a value");
            }
            return *it;
        };
        if (option == "--help" || option == "-h") {
            m_form = Form::HELP;
            return;
        }
        if (option == "--binary") {
            setForm(Form::BINARY);
        } else if (option == "--dump") {
            setForm(Form::DUMP);
        } else if (option == "--source" || option == "--header") {
            setForm(option == "--source" ? Form::SOURCE : Form::HEADER);
            m_name = value();
        } else if (option == "--size") {
            m_arraySize = parseSize(value());
        } else if (option == "--include") {
            m_headerFile = value();
        } else if (option == "--output") {
            m_outputFile = value();
        } else if (option.compare(0, 1, "-") == 0 || !m_layoutFile.empty()) {
            throw std::runtime_error("unexpected argument '" + option + "'; --help tells more");
        } else {
            m_layoutFile = option;
        }
    }
    if (m_layoutFile.empty() || m_form == Form::NONE) {
        throw std::runtime_error(
            "a layout and one of --binary, --source, --header, --dump are needed; --help "
            "tells more");
    }
    if ((m_form == Form::SOURCE || m_form == Form::HEADER) && !LayoutParser::isName(m_name)) {
        throw std::runtime_error("'" + m_name + "' is no name");
    }
}

void DescribeCommand::setForm(Form form)
{
    if (m_form != Form::NONE) {
        throw std::runtime_error("only one of --binary, --source, --header and --dump at a time");
    }
    m_form = form;
}

/// The whole result before a byte of it is written: a refused layout leaves no half a file behind.
std::string DescribeCommand::makeResult() const
{
    if (m_form == Form::HELP) {
        return HELP;
    }
    std::ifstream text(m_layoutFile);
    if (!text) {
        throw std::runtime_error(m_layoutFile + ": can't be read");
    }
    const RecordLayout layout = LayoutParser(text, m_layoutFile).parse();
    const DescriptionEncoder encoder(layout);
    const DescriptionEncoder::Bytes array = encoder.array(m_arraySize);

    std::ostringstream result;
    switch (m_form) {
    case Form::SOURCE:
        writeSource(result, m_name, m_headerFile.empty() ? "sonde_" + m_name + ".h" : m_headerFile, array);
        break;
    case Form::HEADER:
        writeHeader(result, m_name, layout);
        break;
    case Form::DUMP:
        writeDump(result, layout, encoder, array.size());
        break;
    default:
        result << std::string(array.begin(), array.end());
        break;
    }
    return result.str();
}

bool DescribeCommand::writeResult(const std::string& result) const
{
    if (m_outputFile.empty()) {
        m_out << result << std::flush;
        return m_out.good();
    }
    std::ofstream file(m_outputFile, std::ios::binary | std::ios::trunc);
    file << result;
    file.close();
    return file.good();
}

} // namespace Lodestone
