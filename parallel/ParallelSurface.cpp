#include <dataset/detail/Request.hpp>
#include <dataset/detail/VtkDocument.hpp>
#include <dataset/io/AtomicFile.hpp>
#include <model/orvix/Quadratic.hpp>
#include <model/vantle/MemArray.hpp>

#include <algorithm>
#include <limits>
#include <parallel/ParallelSurface.hpp>
#include <parallel/detail/SurfaceParts.hpp>

namespace Vantle {

using Hestra::StrongPtr;

namespace detail {

namespace {

using Tensor = Orvix::Quadratic<3, double>;

template<class F>
void withKind(ValueKind kind, const F& f) {
    switch (kind) {
    case ValueKind::Vector:
        return f(TypeList<Vector>());
    case ValueKind::Point:
        return f(TypeList<Point>());
    case ValueKind::Tensor:
        return f(TypeList<Tensor>());
    default:
        return f(TypeList<double>());
    }
}

} // namespace

void SurfaceParts::count(std::vector<BlockCounts> counts) {
    std::sort(counts.begin(), counts.end(), [](const auto& a, const auto& b) { return a.block < b.block; });
    auto part = parts.begin();
    const auto numberUpTo = [&](std::uint64_t endBlock) {
        for (; part != parts.end() && part->block < endBlock; ++part) {
            part->firstPoint = points;
            part->firstTriangle = triangles;
        }
    };
    for (const BlockCounts& of : counts) {
        numberUpTo(of.block + 1);
        points += of.points;
        triangles += of.triangles;
    }
    numberUpTo(std::numeric_limits<std::uint64_t>::max());
}

void SurfaceParts::takeKinds(const std::vector<std::string>& names, Reader& ofOneRank) {
    for (const std::string& name : names) {
        const auto there = ofOneRank.get<ValueKind>();
        ValueKind& known = values[name];
        if (known != ValueKind::None && there != ValueKind::None && known != there)
            throw DataSetError("field " + quoted(name) + " has elements of several kinds");
        known = std::max(known, there);
    }
}

void SurfaceParts::completeKinds(const std::map<std::string, int>& components) {
    for (const auto& [name, count] : components)
        if (ValueKind& kind = values[name]; kind == ValueKind::None)
            kind = count == 3 ? ValueKind::Vector : count == 9 ? ValueKind::Tensor : ValueKind::Number;
}

Surface makeSurface(std::vector<Point> points, std::vector<Triangle> triangles,
                    const std::map<std::string, StrongPtr<MemBase>>& values) {
    const StrongPtr<Grid> grid = Hestra::makeRef<Grid>();
    const StrongPtr<Representation> vertices = grid->makeCartesianRepresentation(2);
    vertices->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::move(points))));
    const StrongPtr<Representation> corners = (*(*grid)[SkeletonID(2, 1)])[*grid->findVertices(2)];
    corners->setPositions(Hestra::makeRef<Field>(makeMemArray1D(std::move(triangles))));
    for (const auto& [name, array] : values)
        vertices->setField(name, Hestra::makeRef<Field>(array, StrongPtr<FragmentIDCollection>()));
    return Surface(grid);
}

ValueKind kindOf(const StrongPtr<MemBase>& array) {
    for (const ValueKind kind : {ValueKind::Number, ValueKind::Vector, ValueKind::Point, ValueKind::Tensor}) {
        bool is = false;
        withKind(kind, [&]<class T>(TypeList<T>) { is = array && array->elementIndex() == typeid(T); });
        if (is) return kind;
    }
    return ValueKind::None;
}

StrongPtr<MemBase> makeValues(ValueKind kind, std::size_t count) {
    StrongPtr<MemBase> made;
    withKind(kind, [&]<class T>(TypeList<T>) {
        T fill{};
        for (int c = 0; c < ElementTraits<T>::components; ++c)
            elementComponent(fill, c) = std::numeric_limits<double>::quiet_NaN();
        made = makeMemArray1D(std::vector<T>(count, fill)).strong();
    });
    return made;
}

std::span<double> numbersOf(const StrongPtr<MemBase>& array) {
    std::span<double> numbers;
    withKind(kindOf(array), [&]<class T>(TypeList<T>) {
        withMemArray<1>(TypeList<T>(), array, [&](MemArray<1, T>& values) {
            if (values.nElements() != 0)
                numbers = {reinterpret_cast<double*>(&values.element(0)),
                           static_cast<std::size_t>(values.nElements()) * ElementTraits<T>::components};
        });
    });
    return numbers;
}

} // namespace detail

ParallelSurface::ParallelSurface(std::shared_ptr<const detail::SurfaceParts> parts) : myParts(std::move(parts)) {}

const Surface& ParallelSurface::piece() const noexcept { return myParts->piece; }
std::span<const std::uint64_t> ParallelSurface::numbers() const noexcept { return myParts->numbers; }
std::span<const unsigned char> ParallelSurface::isOwn() const noexcept { return myParts->isOwn; }
std::uint64_t ParallelSurface::points() const noexcept { return myParts->points; }
std::uint64_t ParallelSurface::triangles() const noexcept { return myParts->triangles; }

Surface ParallelSurface::gather(int rank) const {
    using detail::Reader;
    using detail::Writer;
    const detail::SurfaceParts& own = *myParts;
    detail::Exchange& exchange = *own.exchange;
    const bool isHere = rank == exchange.rank();
    std::vector<Point> points;
    std::vector<Triangle> triangles;
    std::map<std::string, StrongPtr<MemBase>> values;
    exchange.attempt([&] {
        if (rank < 0 || rank >= exchange.ranks())
            throw DataSetError("gathering a surface on rank " + std::to_string(rank) + " of " +
                               std::to_string(exchange.ranks()));
        if (own.points > std::uint64_t{1} << 32)
            throw DataSetError("a surface of " + std::to_string(own.points) + " points cannot be gathered on one rank");
        if (!isHere) return;
        points.resize(own.points);
        triangles.resize(own.triangles);
        for (const auto& [name, kind] : own.values) values[name] = detail::makeValues(kind, own.points);
    });
    exchange.agree();

    // Rounds of what all ranks together may send to one of them.
    const std::size_t most =
        std::max<std::size_t>(exchange.budget() / static_cast<std::size_t>(exchange.ranks()), 4096);
    std::size_t part = 0, point = 0, triangle = 0;   // that come next
    std::uint64_t sentPoints = 0, sentTriangles = 0; // of the part at hand
    const std::size_t parts = own.parts.size();
    while (exchange.greatest(part < parts ? 1 : 0) != 0) {
        detail::Outbox outbox(exchange.ranks());
        exchange.attempt([&] {
            std::size_t bytes = 0;
            while (part < parts && bytes < most) {
                const detail::SurfacePart& at = own.parts[part];
                Writer writer;
                std::vector<std::size_t> taken;
                const std::size_t piece = (most - bytes) / 32 + 1;
                for (; point < at.endPoint && taken.size() < piece; ++point)
                    if (own.isOwn[point]) taken.push_back(point);
                writer.put(at.firstPoint + sentPoints);
                std::vector<Point> places;
                for (const std::size_t n : taken) places.push_back(own.piece.points()[n]);
                writer.putAll(std::span<const Point>(places));
                for (const auto& [name, kind] : own.values) {
                    const Values& all = own.piece.values(name);
                    const auto components = static_cast<std::size_t>(all.components());
                    std::vector<double> numbers;
                    for (const std::size_t n : taken)
                        for (std::size_t c = 0; c < components; ++c)
                            numbers.push_back(all.numbers()[n * components + c]);
                    writer.putAll(std::span<const double>(numbers));
                }
                sentPoints += taken.size();
                std::vector<Triangle> cells;
                writer.put(at.firstTriangle + sentTriangles);
                for (; triangle < at.endTriangle && cells.size() < piece; ++triangle) {
                    Triangle cell = own.piece.triangles()[triangle];
                    for (int c = 0; c < 3; ++c) cell[c] = static_cast<unsigned int>(own.numbers[cell[c]]);
                    cells.push_back(cell);
                }
                sentTriangles += cells.size();
                writer.putAll(std::span<const Triangle>(cells));
                bytes += writer.bytes.size();
                outbox.add(rank, at.block, at.block, writer.bytes);
                if (point == at.endPoint && triangle == at.endTriangle) {
                    ++part;
                    sentPoints = sentTriangles = 0;
                }
            }
        });
        detail::Inbox inbox = exchange.round(std::move(outbox));
        exchange.attempt([&] {
            for (detail::Inbox::Message& message : inbox.messages()) {
                const auto first = message.content.get<std::uint64_t>();
                const auto places = message.content.getAll<Point>();
                std::copy(places.begin(), places.end(), points.begin() + static_cast<std::ptrdiff_t>(first));
                for (const auto& [name, kind] : own.values) {
                    const auto numbers = message.content.getAll<double>();
                    if (numbers.empty()) continue;
                    const std::size_t components = numbers.size() / places.size();
                    std::copy(numbers.begin(), numbers.end(),
                              detail::numbersOf(values[name]).begin() +
                                  static_cast<std::ptrdiff_t>(first * components));
                }
                const auto firstTriangle = message.content.get<std::uint64_t>();
                const auto cells = message.content.getAll<Triangle>();
                std::copy(cells.begin(), cells.end(), triangles.begin() + static_cast<std::ptrdiff_t>(firstTriangle));
            }
        });
    }
    Surface whole;
    exchange.attempt([&] {
        if (isHere) whole = detail::makeSurface(std::move(points), std::move(triangles), values);
    });
    exchange.agree();
    return whole;
}

void ParallelSurface::write(const std::filesystem::path& file, const VtkOptions& options) const {
    const detail::SurfaceParts& own = *myParts;
    detail::Exchange& exchange = *own.exchange;
    const auto pieceName = [&](int rank) { return file.stem().string() + '_' + std::to_string(rank) + ".vtp"; };
    exchange.attempt([&] {
        if (file.extension() != ".pvtp")
            throw DataSetError("writing " + file.string() + ": surfaces of several ranks are .pvtp files");
        own.piece.write(file.parent_path() / pieceName(exchange.rank()), options);
    });
    exchange.agree();
    exchange.attempt([&] {
        if (exchange.rank() != 0) return;
        std::string text =
            "<?xml version=\"1.0\"?>\n<VTKFile type=\"PPolyData\" version=\"1.0\" "
            "byte_order=\"LittleEndian\" header_type=\"UInt64\">\n<PPolyData GhostLevel=\"0\">\n"
            "<PPoints><PDataArray type=\"Float64\" Name=\"Points\" NumberOfComponents=\"3\"/></PPoints>\n"
            "<PPointData>\n";
        for (const auto& [name, kind] : own.values) {
            const int components = kind == detail::ValueKind::Tensor                                       ? 9
                                   : kind == detail::ValueKind::Vector || kind == detail::ValueKind::Point ? 3
                                                                                                           : 1;
            text += "<PDataArray type=\"Float64\" Name=\"" + detail::vtkEscaped(name) + "\" NumberOfComponents=\"" +
                    std::to_string(components) + "\"/>\n";
        }
        text += "</PPointData>\n";
        for (int rank = 0; rank < exchange.ranks(); ++rank)
            text += "<Piece Source=\"" + detail::vtkEscaped(pieceName(rank)) + "\"/>\n";
        text += "</PPolyData>\n</VTKFile>\n";
        AtomicFile head(file);
        head.write(text.data(), text.size());
        head.commit();
    });
    exchange.agree();
}

} // namespace Vantle
