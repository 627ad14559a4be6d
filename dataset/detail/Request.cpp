#include <dataset/detail/Request.hpp>

#include <cctype>
#include <numeric>

namespace Vantle {

// Here, so that each is one class for all libraries.
DataSetError::~DataSetError() = default;
UnknownName::~UnknownName() = default;

namespace detail {

namespace {

/// How many letters have to be changed, added or left out to make one of the other, whatever their case.
std::size_t editDistance(const std::string& a, const std::string& b) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = diagonal + (lower(a[i]) == lower(b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

UnknownName unknownName(const std::string& kind, const std::string& name, std::vector<std::string> known) {
    std::string text = "no " + kind + ' ' + quoted(name);
    if (known.empty()) return UnknownName(text + "; there are none");
    std::vector<std::pair<std::size_t, std::string>> ranked;
    for (std::string& other : known) ranked.emplace_back(editDistance(name, other), std::move(other));
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; }); // equally near: as they were
    constexpr std::size_t Most = 20;
    text += "; there are";
    for (std::size_t n = 0; n < std::min(ranked.size(), Most); ++n)
        text += (n ? ", " : ": ") + quoted(ranked[n].second);
    if (ranked.size() > Most) text += " and " + std::to_string(ranked.size() - Most) + " more";
    return UnknownName(text);
}

} // namespace detail

} // namespace Vantle
