#ifndef LODESTONE_CLIENT_RECORDVIEW_H
#define LODESTONE_CLIENT_RECORDVIEW_H

#include "ReaderError.h"
#include "RecordDescription.h"

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace LodestoneTap
{

/// One number of a record, in the widest form of its type.
struct RecordValue
{
    FieldType type = FieldType::UNSIGNED; ///< Never STRUCTURE; tells which of the three is set.
    std::uint32_t size = 0;               ///< Bytes in the record: 4 or 8 for a FLOAT.
    std::int64_t asSigned = 0;
    std::uint64_t asUnsigned = 0;
    double asFloat = 0.0;

    /// As a T. Throws ReaderError, with `path` in its text, if an integer is asked for and the value is none
    /// that T can hold; a floating-point number never becomes an integer.
    template<typename T>
    T as(const std::string& path) const;
};

/// The values of one record, read by the names that its description gives. Borrows both; copying is cheap.
///
/// A path names fields from the outside in, an array's element in brackets:
/// "diags[2].profiling.runtimeMsecs". Records are little-endian as the rest of the stream. Failures are
/// ReaderErrors that name the path.
class RecordView
{
public:
    /// Throws if the record doesn't have the size that the description gives.
    RecordView(const RecordDescription& description, const std::vector<std::uint8_t>& record);

    const RecordField& root() const { return m_root; }

    /// A single number.
    template<typename T>
    T read(const std::string& path) const;

    /// All numbers of an array, the last dimension fastest; leading indexes in the path select a part of it.
    template<typename T>
    std::vector<T> readArray(const std::string& path) const;

    /// For those who walk the description: the number of `field` at its own offset plus `displacement` bytes,
    /// which is what the indexes of the arrays around it come to. The field is one of this record's, no
    /// structure.
    RecordValue valueAt(const RecordField& field, std::uint64_t displacement) const;

    /// Whether all bytes of one element of `field` are zero.
    bool isZero(const RecordField& field, std::uint64_t displacement) const;

private:
    /// What a path leads to: `count` elements of `field` from `displacement` on.
    struct Target
    {
        const RecordField* field;
        std::uint64_t displacement;
        std::uint64_t count;
        bool single; // all indexes given
    };

    Target resolve(const std::string& path) const;
    std::vector<RecordValue> values(const std::string& path) const;
    RecordValue value(const std::string& path) const;

    const RecordField& m_root;
    const std::vector<std::uint8_t>& m_record;
};

template<typename T>
T RecordValue::as(const std::string& path) const
{
    static_assert(std::is_arithmetic<T>::value, "records hold numbers");
    if constexpr (std::is_floating_point<T>::value) {
        return static_cast<T>(type == FieldType::FLOAT    ? asFloat
                              : type == FieldType::SIGNED ? static_cast<double>(asSigned)
                                                          : static_cast<double>(asUnsigned));
    } else {
        typedef std::numeric_limits<T> Limits;
        const bool isSigned = type == FieldType::SIGNED;
        const bool negative = isSigned && asSigned < 0;
        const std::uint64_t magnitude = isSigned ? static_cast<std::uint64_t>(asSigned) : asUnsigned;
        const bool fits = negative ? Limits::is_signed && asSigned >= static_cast<std::int64_t>(Limits::min())
                                   : magnitude <= static_cast<std::uint64_t>(Limits::max());
        if (type == FieldType::FLOAT || !fits) {
            throw ReaderError(path + " can't be read as an integer of the type asked for");
        }
        return static_cast<T>(magnitude);
    }
}

template<typename T>
T RecordView::read(const std::string& path) const
{
    return value(path).as<T>(path);
}

template<typename T>
std::vector<T> RecordView::readArray(const std::string& path) const
{
    std::vector<T> numbers;
    for (const RecordValue& element : values(path)) {
        numbers.push_back(element.as<T>(path));
    }
    return numbers;
}

} // namespace LodestoneTap

#endif
