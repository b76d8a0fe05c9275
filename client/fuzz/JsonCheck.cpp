#include "JsonCheck.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace
{

/// Each function takes one piece of the grammar from the front of the text; false if there is none.
class JsonText
{
public:
    explicit JsonText(const std::string& text) : m_text(text) {}

    bool document() { return value() && m_at == m_text.size(); }

private:
    bool value()
    {
        switch (front()) {
        case '{':
            return list('{', '}', true);
        case '[':
            return list('[', ']', false);
        case '"':
            return quoted();
        default:
            return word("null") || word("true") || word("false") || number();
        }
    }

    bool list(char begin, char end, bool named)
    {
        take(begin);
        if (take(end)) {
            return true;
        }
        do {
            if ((named && !(quoted() && take(':'))) || !value()) {
                return false;
            }
        } while (take(','));
        return take(end);
    }

    bool quoted()
    {
        if (!take('"')) {
            return false;
        }
        while (m_at < m_text.size() && front() != '"') {
            if (take('\\') &&
                !(take('u') ? hexDigits() : front() != 0 && std::strchr("\"\\/bfnrt", front()))) {
                return false;
            }
            ++m_at;
        }
        return take('"');
    }

    /// Four of them; the last one is left.
    bool hexDigits()
    {
        for (int i = 0; i < 4; ++i, ++m_at) {
            if (front() == 0 || std::strchr("0123456789abcdefABCDEF", front()) == nullptr) {
                return false;
            }
        }
        --m_at;
        return true;
    }

    bool number()
    {
        take('-');
        if (!take('0') && !digits()) {
            return false;
        }
        if (take('.') && !digits()) {
            return false;
        }
        if (take('e') || take('E')) {
            static_cast<void>(take('+') || take('-'));
            return digits();
        }
        return true;
    }

    bool digits()
    {
        const std::size_t begin = m_at;
        while (front() >= '0' && front() <= '9') {
            ++m_at;
        }
        return m_at > begin;
    }

    bool word(const char* word)
    {
        const bool here = m_text.compare(m_at, std::strlen(word), word) == 0;
        m_at += here ? std::strlen(word) : 0;
        return here;
    }

    bool take(char c)
    {
        const bool here = m_at < m_text.size() && m_text[m_at] == c;
        m_at += here ? 1 : 0;
        return here;
    }

    char front() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    const std::string& m_text;
    std::size_t m_at = 0;
};

} // namespace

bool isJson(const std::string& text)
{
    const bool printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return printable && JsonText(text).document();
}
