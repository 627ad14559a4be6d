#pragma once

/// PLOT3D files in any form, for tests of what reads them.

#include "io/Plot3D.hpp"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace support {

/// Writes numbers in a form; a record is closed by its byte count in front and behind when the form wants it.
class FormWriter {
public:
    explicit FormWriter(const tour::Plot3DForm& form) : form_(form) {}

    void integer(int value) { number(static_cast<std::uint32_t>(value), record_); }
    void scalar(double value) {
        if (form_.scalar == tour::Plot3DScalar::float32)
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
        record_.clear();
    }
    template<typename Block>
    void header(const std::vector<Block>& blocks) {
        if (form_.multiBlock) {
            integer(static_cast<int>(blocks.size()));
            endRecord();
        }
        for (const Block& block : blocks)
            for (const int extent : block.extents) integer(extent);
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

    tour::Plot3DForm form_;
    std::string record_;
};

inline std::string gridBytes(const tour::Plot3DForm& form, const std::vector<tour::Plot3DBlock>& blocks) {
    FormWriter writer(form);
    writer.header(blocks);
    for (const tour::Plot3DBlock& block : blocks) {
        for (const auto* coordinate : {&block.x, &block.y, &block.z}) writer.scalars(*coordinate);
        if (form.blanking)
            for (const int flag : *block.blanking) writer.integer(flag);
        writer.endRecord();
    }
    return writer.bytes;
}

inline std::string solutionBytes(const tour::Plot3DForm& form, const std::vector<tour::Plot3DSolutionBlock>& blocks) {
    FormWriter writer(form);
    writer.header(blocks);
    for (const tour::Plot3DSolutionBlock& block : blocks) {
        writer.scalars({block.mach, block.alpha, block.reynolds, block.time});
        writer.endRecord();
        for (const tour::Plot3DField& field : block.fields) writer.scalars(field.values);
        writer.endRecord();
    }
    return writer.bytes;
}

} // namespace support
