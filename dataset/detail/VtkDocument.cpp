#include <dataset/detail/VtkDocument.hpp>
#include <dataset/io/FileError.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <new>
#include <omp.h>

#ifdef VANTLE_HAVE_ZLIB
#    include <zlib.h>
#endif

namespace Vantle {

bool canCompressVtk() noexcept {
#ifdef VANTLE_HAVE_ZLIB
    return true;
#else
    return false;
#endif
}

} // namespace Vantle

namespace Vantle::detail {

namespace {

constexpr std::size_t PieceBytes = 1 << 20; // after so many it is asked whether to go on
constexpr std::size_t OffsetWidth = 22;     // room for a 64-bit number and its quotation mark

// Values as they stand in the file: little-endian.
class LittleEndianSink : public VtkSink {
public:
    LittleEndianSink(AtomicFile& file, VtkMeter& meter) : myFile(file), myMeter(meter) {}

    using VtkSink::put;
    void put(const void* numbers, std::size_t count, std::size_t size) final {
        const char* from = static_cast<const char*>(numbers);
        for (std::size_t left = count * size; left > 0;) {
            const std::size_t bytes = std::min(left, PieceBytes);
            if constexpr (std::endian::native == std::endian::little) {
                take(from, bytes);
            } else {
                std::vector<char> swapped(from, from + bytes);
                for (std::size_t at = 0; at < bytes; at += size)
                    std::reverse(swapped.begin() + static_cast<std::ptrdiff_t>(at),
                                 swapped.begin() + static_cast<std::ptrdiff_t>(at + size));
                take(swapped.data(), bytes);
            }
            from += bytes;
            left -= bytes;
            myBytes += bytes;
            myMeter.add(static_cast<double>(bytes));
        }
    }
    [[nodiscard]] std::uint64_t bytes() const noexcept { return myBytes; }
    virtual void finish() = 0;

protected:
    virtual void take(const char* data, std::size_t bytes) = 0;
    void writeWord(std::uint64_t word) {
        const auto bytes = littleEndian(word);
        myFile.write(bytes.data(), bytes.size());
    }
    static std::array<char, 8> littleEndian(std::uint64_t word) {
        std::array<char, 8> bytes;
        for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<char>((word >> (8 * i)) & 0xff);
        return bytes;
    }

    AtomicFile& myFile;

private:
    VtkMeter& myMeter;
    std::uint64_t myBytes = 0;
};

// The number of bytes, and the bytes.
class PlainSink final : public LittleEndianSink {
public:
    PlainSink(AtomicFile& file, VtkMeter& meter, std::uint64_t bytes) : LittleEndianSink(file, meter) {
        writeWord(bytes);
    }
    void finish() override {}

private:
    void take(const char* data, std::size_t bytes) override { myFile.write(data, bytes); }
};

#ifdef VANTLE_HAVE_ZLIB
// The number of blocks, their size, that of the last one if it is another, the compressed sizes, and the compressed
// blocks. Several blocks are compressed at a time, one by each thread.
class CompressingSink final : public LittleEndianSink {
public:
    CompressingSink(AtomicFile& file, VtkMeter& meter, std::uint64_t bytes)
        : LittleEndianSink(file, meter), myRoom(BlockBytes * static_cast<std::size_t>(omp_get_max_threads())) {
        const std::uint64_t blocks = (bytes + BlockBytes - 1) / BlockBytes;
        writeWord(blocks);
        writeWord(BlockBytes);
        writeWord(bytes % BlockBytes);
        mySizesPlace = file.size();
        for (std::uint64_t block = 0; block < blocks; ++block) writeWord(0); // until they are known
        myWaiting.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(bytes, myRoom)));
    }
    void finish() override {
        if (!myWaiting.empty()) flush();
        myFile.rewrite(mySizesPlace, mySizes.data(), mySizes.size());
    }

private:
    static constexpr std::size_t BlockBytes = 1 << 17;

    void take(const char* data, std::size_t bytes) override {
        while (bytes > 0) {
            if (myWaiting.size() == myRoom) flush();
            const std::size_t part = std::min(bytes, myRoom - myWaiting.size());
            myWaiting.insert(myWaiting.end(), data, data + part);
            data += part;
            bytes -= part;
        }
    }
    void flush() {
        // The room is a whole number of blocks: only the last one of all may be shorter.
        const std::size_t count = (myWaiting.size() + BlockBytes - 1) / BlockBytes;
        const ::uLong bound = ::compressBound(BlockBytes);
        std::vector<::uLongf> sizes(count, bound);
        myCompressed.resize(count * bound);
        bool failed = false;
        const auto signedCount = static_cast<std::ptrdiff_t>(count);
#    pragma omp parallel for schedule(static) if (signedCount > 1) reduction(|| : failed)
        for (std::ptrdiff_t b = 0; b < signedCount; ++b) {
            const auto block = static_cast<std::size_t>(b);
            const std::size_t begin = block * BlockBytes;
            const std::size_t bytes = std::min(BlockBytes, myWaiting.size() - begin);
            const int status = ::compress2(reinterpret_cast<::Bytef*>(&myCompressed[block * bound]), &sizes[block],
                                           reinterpret_cast<const ::Bytef*>(&myWaiting[begin]),
                                           static_cast<::uLong>(bytes), Z_BEST_SPEED);
            failed = failed || status != Z_OK;
        }
        if (failed) throw std::bad_alloc(); // all else that could go wrong does not, see compress2
        for (std::size_t block = 0; block < count; ++block) {
            myFile.write(&myCompressed[block * bound], sizes[block]);
            const auto word = littleEndian(sizes[block]);
            mySizes.insert(mySizes.end(), word.begin(), word.end());
        }
        myWaiting.clear();
    }

    std::size_t myRoom;
    std::uint64_t mySizesPlace = 0;
    std::vector<char> mySizes, myWaiting, myCompressed;
};
#endif

} // namespace

VtkSink::~VtkSink() = default;

void VtkMeter::reach(double bytes) {
    myDone = std::max(myDone, bytes);
    if (myProgress && !myProgress(myTotal > 0.0 ? std::min(1.0, myDone / myTotal) : 1.0)) throw Cancelled();
}

VtkDocument::VtkDocument(std::string_view type, bool compress) : myCompress(compress && canCompressVtk()) {
    line("<?xml version=\"1.0\"?>");
    line("<VTKFile type=\"" + std::string(type) +
         "\" version=\"1.0\" byte_order=\"LittleEndian\" header_type=\"UInt64\"" +
         (myCompress ? " compressor=\"vtkZLibDataCompressor\">" : ">"));
}

void VtkDocument::array(VtkSeries series) {
    myXml += "<DataArray type=\"" + std::string(series.type) + "\" Name=\"" + vtkEscaped(series.name) +
             "\" NumberOfComponents=\"" + std::to_string(series.components) + "\" format=\"appended\" offset=\"";
    const std::size_t place = myXml.size();
    line(std::string(OffsetWidth, ' ') + "/>"); // known when the array is written
    myArrays.push_back({std::move(series), place});
}

void VtkDocument::save(const std::filesystem::path& path, VtkMeter& meter) {
    AtomicFile file(path);
    const auto put = [&](std::string_view part) { file.write(part.data(), part.size()); };
    put(myXml);
    put("<AppendedData encoding=\"raw\">\n_");
    const std::uint64_t start = file.size();
    for (Announced& announced : myArrays) {
        VtkSeries& series = announced.series;
        const std::string offset = std::to_string(file.size() - start) + "\"";
        file.rewrite(announced.offsetPlace, offset.data(), offset.size());
        const auto write = [&](auto&& sink) {
            series.write(sink);
            sink.finish();
            if (sink.bytes() != series.bytes())
                throw FileError(path, "array '" + series.name + "'", "has changed its size while it was written");
        };
#ifdef VANTLE_HAVE_ZLIB
        if (myCompress)
            write(CompressingSink(file, meter, series.bytes()));
        else
#endif
            write(PlainSink(file, meter, series.bytes()));
        series.write = nullptr;
    }
    put("\n</AppendedData>\n</VTKFile>\n");
    file.commit();
}

std::string vtkNumber(double value) {
    std::array<char, 32> buffer;
    return {buffer.data(), std::to_chars(buffer.data(), buffer.data() + buffer.size(), value).ptr};
}

namespace {

// How many bytes the character has that begins here; 0 where there is none of those that XML may have in UTF-8.
std::size_t characterBytes(std::string_view text) {
    constexpr std::array<std::uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000}; // of so many bytes
    const auto byte = [&](std::size_t n) { return static_cast<unsigned char>(text[n]); };
    if (byte(0) < 0x80) return byte(0) >= 0x20 || text[0] == '\t' || text[0] == '\n' || text[0] == '\r' ? 1 : 0;
    const std::size_t bytes = byte(0) < 0xe0 ? 2 : byte(0) < 0xf0 ? 3 : 4;
    if (byte(0) < 0xc0 || byte(0) >= 0xf8 || text.size() < bytes) return 0;
    std::uint32_t code = byte(0) & (0x7fU >> bytes);
    for (std::size_t n = 1; n < bytes; ++n) {
        if ((byte(n) & 0xc0) != 0x80) return 0;
        code = code << 6 | (byte(n) & 0x3f);
    }
    const bool isSurrogate = code >= 0xd800 && code < 0xe000, isNone = code == 0xfffe || code == 0xffff;
    return code < least[bytes] || code > 0x10ffff || isSurrogate || isNone ? 0 : bytes;
}

} // namespace

bool vtkCanName(std::string_view text) {
    for (std::size_t bytes = 0; !text.empty(); text.remove_prefix(bytes))
        if (bytes = characterBytes(text); bytes == 0) return false;
    return true;
}

std::string vtkEscaped(std::string_view text) {
    std::string result;
    for (; !text.empty(); text.remove_prefix(1)) switch (const char c = text.front(); c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\t':
        case '\n':
        case '\r': // readers would make blanks of them
            result += "&#" + std::to_string(c) + ';';
            break;
        default:
            if (const std::size_t bytes = characterBytes(text); bytes > 0) {
                result += text.substr(0, bytes);
                text.remove_prefix(bytes - 1);
            } else if (const auto byte = static_cast<unsigned char>(c); byte < 0x80) {
                result += ' ';
            } else { // most likely of Latin-1; anything would be better than a file that nobody can read
                result += static_cast<char>(0xc0 | byte >> 6);
                result += static_cast<char>(0x80 | (byte & 0x3f));
            }
        }
    return result;
}

} // namespace Vantle::detail
