#include "Common.hpp"

#include <cmath>

namespace VantlePython {

using Vantle::Plane;

std::vector<std::string> listOf(const std::optional<Names>& names) {
    if (!names) return {};
    if (const auto* const one = std::get_if<std::string>(&*names)) return {*one};
    return std::get<std::vector<std::string>>(*names);
}

std::size_t bytesOf(const py::object& size) {
    if (size.is_none()) return std::numeric_limits<std::size_t>::max();
    const auto refuse = [&] {
        throw py::value_error("memory: expected bytes, or a text such as \"2 GiB\", got " +
                              std::string(py::repr(size)));
    };
    double bytes = -1.0, unit = 1.0;
    if (py::isinstance<py::str>(size)) {
        const auto text = size.cast<std::string>();
        std::size_t end = 0;
        try {
            bytes = std::stod(text, &end);
        } catch (const std::exception&) {
            refuse();
        }
        end = std::min(text.find_first_not_of(' ', end), text.size());
        constexpr std::array units{std::pair("", 0.0),  std::pair("B", 0.0), std::pair("k", 1.0), std::pair("K", 1.0),
                                   std::pair("M", 2.0), std::pair("G", 3.0), std::pair("T", 4.0)};
        unit = 0.0;
        for (const auto& [name, power] : units)
            for (const auto& [rest, base] : {std::pair("", 1000.0), std::pair("B", 1000.0), std::pair("iB", 1024.0)})
                if (text.substr(end) == std::string(name) + rest) unit = std::pow(base, power);
    } else {
        bytes = PyFloat_AsDouble(size.ptr());
        if (PyErr_Occurred()) {
            PyErr_Clear();
            refuse();
        }
    }
    if (!(bytes >= 0.0) || unit == 0.0 || !(bytes * unit < 9e18)) refuse();
    return static_cast<std::size_t>(bytes * unit);
}

std::variant<Plane, Vantle::IndexPlane> cutOf(const Normal& normal, double at,
                                              const std::optional<std::array<double, 3>>& origin,
                                              const std::optional<std::string>& block) {
    if (block) {
        const auto* const name = std::get_if<std::string>(&normal);
        const std::size_t axis = name && name->size() == 1 ? std::string("ijk").find(*name) : std::string::npos;
        if (axis == std::string::npos || origin || !(at >= 0.0) || at != std::floor(at) || at > 1e15)
            throw py::value_error("slice: a layer of a block is (\"i\", \"j\" or \"k\", number, block=name)");
        return Vantle::IndexPlane{*block, static_cast<int>(axis), static_cast<Vantle::index_t>(at)};
    }
    if (const auto* const axis = std::get_if<std::string>(&normal)) {
        if (*axis != "x" && *axis != "y" && *axis != "z")
            throw py::value_error("slice: expected \"x\", \"y\", \"z\", a normal, or a layer of a block=..., got \"" +
                                  *axis + '"');
        if (origin) throw py::value_error("slice: an origin goes with a normal, not with \"" + *axis + '"');
        return *axis == "x" ? Plane::x(at) : *axis == "y" ? Plane::y(at) : Plane::z(at);
    }
    if (at != 0.0) throw py::value_error("slice: a normal goes with an origin, not with a coordinate");
    const auto& n = std::get<1>(normal);
    const auto o = origin.value_or(std::array<double, 3>());
    return Plane{{o[0], o[1], o[2]}, {n[0], n[1], n[2]}};
}

namespace {

template<class T>
std::optional<T> chosen(const std::optional<std::string>& given, const char* name, const char* first, T firstValue,
                        const char* second, T secondValue) {
    if (!given) return std::nullopt;
    if (*given == first) return firstValue;
    if (*given == second) return secondValue;
    throw py::value_error(std::string(name) + ": expected \"" + first + "\" or \"" + second + "\", got \"" + *given +
                          '"');
}

} // namespace

std::vector<std::filesystem::path> filesOf(const py::args& given) {
    std::vector<std::filesystem::path> files;
    for (const py::handle& file : given) files.push_back(file.cast<std::filesystem::path>());
    return files;
}

Vantle::ReadOptions readOptionsOf(double heatRatio, std::optional<bool> recordMarks, std::optional<bool> multiBlock,
                                  std::optional<bool> blanking, const std::optional<std::string>& byteOrder,
                                  const std::optional<std::string>& scalar) {
    Vantle::ReadOptions options;
    options.heatRatio = heatRatio;
    options.form.recordMarks = recordMarks;
    options.form.multiBlock = multiBlock;
    options.form.blanking = blanking;
    options.form.byteOrder = chosen(byteOrder, "byte_order", "big", std::endian::big, "little", std::endian::little);
    options.form.scalar =
        chosen(scalar, "scalar", "float32", Vantle::Plot3DScalar::float32, "float64", Vantle::Plot3DScalar::float64);
    return options;
}

const char* kindName(Vantle::BlockKind kind) {
    switch (kind) {
    case Vantle::BlockKind::Uniform:
        return "uniform";
    case Vantle::BlockKind::Rectilinear:
        return "rectilinear";
    case Vantle::BlockKind::Curvilinear:
        return "curvilinear";
    default:
        return "other";
    }
}

py::dict fieldsOf(const std::vector<Vantle::FieldInfo>& fields) {
    py::dict all;
    for (const Vantle::FieldInfo& info : fields) all[py::str(info.name)] = info;
    return all;
}

py::list joinsOf(const std::vector<Vantle::BlockJoin>& joins, const std::vector<std::string>& names) {
    const py::object join = py::module_::import("vantle._joins").attr("Join");
    const auto face = [&](const Vantle::BlockFace& of) {
        return py::make_tuple(names[of.block], std::string(1, "ijk"[of.axis]) + (of.upper ? "max" : "min"));
    };
    py::list all;
    for (const Vantle::BlockJoin& found : joins)
        all.append(join(face(found.first), face(found.second), tupleOf(found.low), tupleOf(found.high),
                        found.motion < 0 ? py::object(py::none()) : py::int_(found.motion), found.largestDistance));
    return all;
}

py::object valuesOf(const Vantle::Samples& samples, std::vector<py::ssize_t> shape, bool isMasked) {
    const std::vector<py::ssize_t> positions = shape;
    for (int c = samples.components(); c > 1; c /= 3) shape.push_back(3);
    const py::object values = viewOf(samples.array(), true).attr("reshape")(shape);
    if (!isMasked) return values;
    const std::span<const unsigned char> found = samples.mask();
    py::array_t<bool> mask(static_cast<py::ssize_t>(found.size()));
    for (std::size_t k = 0; k < found.size(); ++k) mask.mutable_data()[k] = found[k] == 0;
    py::object all = mask.attr("reshape")(positions);
    const py::module_ numpy = py::module_::import("numpy");
    for (int c = samples.components(); c > 1; c /= 3) all = numpy.attr("expand_dims")(all, -1);
    return numpy.attr("ma").attr("MaskedArray")(values, numpy.attr("broadcast_to")(all, shape).attr("copy")());
}

} // namespace VantlePython
