#pragma once

/// PLOT3D files in any form, for tests of what reads them.

#include <dataset/io/Plot3D.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace support {

struct Plot3DBlock {
    std::array<int, 3> extents{};
    std::vector<double> x, y, z;
    std::optional<std::vector<int>> blanking;
};

struct Plot3DField {
    std::vector<double> values;
};

struct Plot3DSolutionBlock {
    std::array<int, 3> extents{};
    double mach = 0.0, alpha = 0.0, reynolds = 0.0, time = 0.0;
    std::array<Plot3DField, 5> fields; ///< density, momentum x, momentum y, momentum z, energy
};

struct Plot3DFunctionBlock {
    std::array<int, 3> extents{};
    std::vector<Plot3DField> fields;
};

/// Writes numbers in a form; a record is closed by its byte count in front and behind when the form wants it.
class FormWriter {
public:
    explicit FormWriter(const Vantle::Plot3DForm& form) : form_(form) {}

    void integer(int value) {
        if (form_.text)
            word(value);
        else
            number(static_cast<std::uint32_t>(value), record_);
    }
    void scalar(double value) {
        if (form_.text)
            word(value);
        else if (form_.scalar == Vantle::Plot3DScalar::float32)
            number(std::bit_cast<std::uint32_t>(static_cast<float>(value)), record_);
        else
            number(std::bit_cast<std::uint64_t>(value), record_);
    }
    void scalars(const std::vector<double>& values) {
        std::for_each(values.begin(), values.end(), [&](double v) { scalar(v); });
    }
    void endRecord() {
        const auto size = static_cast<std::uint32_t>(record_.size());
        if (form_.recordMarks) number(size, bytes);
        bytes += record_;
        if (form_.recordMarks) number(size, bytes);
        if (form_.text) bytes += '\n';
        record_.clear();
    }
    template<typename Block>
    void header(const std::vector<Block>& blocks, int dimensions = 3) {
        if (form_.multiBlock) {
            integer(static_cast<int>(blocks.size()));
            endRecord();
        }
        for (const Block& block : blocks) {
            for (int d = 0; d < dimensions; ++d) integer(block.extents[static_cast<std::size_t>(d)]);
            if constexpr (std::is_same_v<Block, Plot3DFunctionBlock>) integer(static_cast<int>(block.fields.size()));
        }
        endRecord();
    }

    std::string bytes;

private:
    template<typename Word>
    void number(Word word, std::string& to) const {
        for (std::size_t i = 0; i < sizeof word; ++i) {
            const std::size_t place = form_.byteOrder == std::endian::little ? i : sizeof word - 1 - i;
            to.push_back(static_cast<char>((word >> (8 * place)) & 0xff));
        }
    }
    template<typename Value>
    void word(Value value) {
        std::array<char, 32> text;
        record_.append(text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr);
        record_ += record_.size() % 70 < 60 ? ' ' : '\n';
    }

    Vantle::Plot3DForm form_;
    std::string record_;
};

/// Of two dimensions without z.
inline std::string gridBytes(const Vantle::Plot3DForm& form, const std::vector<Plot3DBlock>& blocks,
                             int dimensions = 3) {
    FormWriter writer(form);
    writer.header(blocks, dimensions);
    for (const Plot3DBlock& block : blocks) {
        writer.scalars(block.x);
        writer.scalars(block.y);
        if (dimensions == 3) writer.scalars(block.z);
        if (form.blanking)
            for (const int flag : *block.blanking) writer.integer(flag);
        writer.endRecord();
    }
    return writer.bytes;
}

/// Of two dimensions without momentum along z.
inline std::string solutionBytes(const Vantle::Plot3DForm& form, const std::vector<Plot3DSolutionBlock>& blocks,
                                 int dimensions = 3) {
    FormWriter writer(form);
    writer.header(blocks, dimensions);
    for (const Plot3DSolutionBlock& block : blocks) {
        writer.scalars({block.mach, block.alpha, block.reynolds, block.time});
        writer.endRecord();
        for (std::size_t f = 0; f < block.fields.size(); ++f)
            if (f != 3 || dimensions == 3) writer.scalars(block.fields[f].values);
        writer.endRecord();
    }
    return writer.bytes;
}

inline std::string functionBytes(const Vantle::Plot3DForm& form, const std::vector<Plot3DFunctionBlock>& blocks) {
    FormWriter writer(form);
    writer.header(blocks);
    for (const Plot3DFunctionBlock& block : blocks) {
        for (const Plot3DField& field : block.fields) writer.scalars(field.values);
        writer.endRecord();
    }
    return writer.bytes;
}

} // namespace support
