#include <support/Testing.hpp>

namespace {

using namespace Orvix;
using Key = FixedArray<double, 3>;
using Hits = std::vector<std::pair<int, double>>; // value and distance

/// The tree as its definition says it: pointers, one walk from the root an insertion, every entry tested.
class PlainTree {
public:
    void insert(const Key& key, int value) {
        std::unique_ptr<Node>* slot = &myRoot;
        for (int axis = 0; *slot; axis = (axis + 1) % 3) slot = &(*slot)->child[(*slot)->key[axis] > key[axis] ? 0 : 1];
        *slot = std::make_unique<Node>(Node{key, value, {}});
    }
    Hits search(const Key& centre, const Key& halfWidths) const {
        Hits hits;
        std::vector<const Node*> stack{myRoot.get()};
        while (!stack.empty()) {
            const Node* const node = stack.back();
            stack.pop_back();
            if (!node) continue;
            double d[3];
            for (int i = 0; i < 3; ++i) d[i] = std::fabs(node->key[i] - centre[i]);
            if (d[0] <= halfWidths[0] && d[1] <= halfWidths[1] && d[2] <= halfWidths[2])
                hits.emplace_back(node->value, d[0] + d[1] + d[2]);
            stack.push_back(node->child[1].get());
            stack.push_back(node->child[0].get());
        }
        return hits;
    }

private:
    struct Node {
        Key key;
        int value;
        std::unique_ptr<Node> child[2];
    };
    std::unique_ptr<Node> myRoot;
};

Hits search(const KDTree<3, int>& tree, const Key& centre, const Key& halfWidths) {
    Hits hits;
    tree.forEachInBox(centre, halfWidths, [&](int value, double distance) { hits.emplace_back(value, distance); });
    return hits;
}

struct Distribution {
    const char* name;
    int stride; // of the order of insertion
    std::function<Key(int, std::mt19937&)> key;
};

double uniform(std::mt19937& random) { return std::uniform_real_distribution<double>(0, 10)(random); }

class OrvixKDTreeTest : public testing::TestWithParam<Distribution> {
protected:
    static constexpr int Count = 3000;

    OrvixKDTreeTest() {
        std::mt19937 random(5);
        keys.resize(Count);
        for (int i = 0; i < Count; ++i) keys[static_cast<std::size_t>(i)] = GetParam().key(i, random);
    }
    void insertInto(KDTree<3, int>& tree, int begin, int end) {
        for (int offset = 0; offset < GetParam().stride; ++offset)
            for (int i = begin + offset; i < end; i += GetParam().stride) {
                EXPECT_TRUE(tree.insert(keys[static_cast<std::size_t>(i)], i));
                plain.insert(keys[static_cast<std::size_t>(i)], i);
            }
    }
    void expectEqualSearches(const KDTree<3, int>& tree) {
        std::mt19937 random(6);
        const double widths[] = {0.0, 0.5, 1.0, 3.0, kInfinity};
        for (int query = 0; query < 120; ++query) {
            const Key& centre = query % 3 ? keys[random() % Count] : Key(uniform(random), uniform(random), 5.0);
            const Key half(widths[random() % 5], widths[random() % 5], widths[random() % 5]);
            ASSERT_EQ(search(tree, centre, half), plain.search(centre, half)) << centre << half;
        }
    }

    std::vector<Key> keys;
    PlainTree plain;
};

// The very order matters: of two cells that share a face, the earlier in the tree owns it.
TEST_P(OrvixKDTreeTest, FindsWhatThePlainTreeFindsInItsOrder) {
    KDTree<3, int> tree;
    tree.pack();
    insertInto(tree, 0, Count / 2);
    expectEqualSearches(tree);
    const std::size_t depth = tree.depth();
    tree.pack();
    EXPECT_EQ(tree.depth(), depth);
    expectEqualSearches(tree);
    insertInto(tree, Count / 2, Count); // after packing
    EXPECT_EQ(tree.size(), std::size_t(Count));
    expectEqualSearches(tree);
    tree.pack();
    expectEqualSearches(tree);
}

const Distribution Distributions[] = {
    {"random", 1, [](int, std::mt19937& r) { return Key(uniform(r), uniform(r), uniform(r)); }},
    {"lattice", 13, [](int i, std::mt19937&) { return Key(i % 15, i / 15 % 15, i / 225); }},
    {"plane", 13, [](int i, std::mt19937&) { return Key(i % 50 * 0.2, 5, i / 50 * 0.1); }},
    {"duplicates", 1, [](int, std::mt19937& r) { return Key(r() % 4, r() % 4, r() % 3); }},
    {"onePoint", 1, [](int, std::mt19937&) { return Key(1, 2, 5); }},
    {"ascending", 1, [](int i, std::mt19937&) { return Key(i * 0.01, i * 0.01, i * 0.01); }},
    {"descending", 1, [](int i, std::mt19937&) { return Key(-i, -i, -i); }},
    // Descends along first children and then hangs a second child on each: the most subtrees can be pending.
    {"comb", 1, [](int i, std::mt19937&) { return i < 700 ? Key(-i, -i, -i) : Key(700.5 - i, 700.5 - i, 700.5 - i); }},
    {"infinite", 1,
     [](int, std::mt19937& r) {
         return Key(r() % 5 ? uniform(r) : kInfinity, r() % 5 ? 5.0 : -kInfinity, uniform(r));
     }},
    {"signedZeros", 1,
     [](int, std::mt19937& r) { return Key(r() % 2 ? 0.0 : -0.0, r() % 2 ? 1.0 : -1.0, uniform(r)); }},
};
INSTANTIATE_TEST_SUITE_P(Distributions, OrvixKDTreeTest, testing::ValuesIn(Distributions),
                         [](const auto& distribution) { return std::string(distribution.param.name); });

TEST(OrvixKDTree, AMillionSortedEntriesMakeAListThatStillWorks) {
    constexpr int count = 1000000;
    for (const int sign : {1, -1}) {
        KDTree<3, int> tree;
        tree.reserve(count);
        for (int i = 0; i < count; ++i) tree.insert(Key(sign * i, sign * i, sign * i), i);
        EXPECT_EQ(tree.depth(), std::size_t(count));
        const int middle = count - 10;
        const Hits expected{{middle - 1, 3.0}, {middle, 0.0}, {middle + 1, 3.0}};
        for (int form = 0; form < 2; ++form, tree.pack())
            EXPECT_EQ(search(tree, Key(sign * middle, sign * middle, sign * middle), Key(1, 2, 3)), expected);
    }
}

TEST(OrvixKDTree, MultimapKeepsTiesInPreOrder) {
    KDTree<3, int> tree;
    // Pre-order: 0, then the first child 2, then the second child 1 with its second child 3.
    tree.insert(point(0, 0, 0), 0);
    tree.insert(point(1, 0, 0), 1);
    tree.insert(point(-1, 0, 0), 2);
    tree.insert(point(0, 1, 0), 3);
    std::multimap<double, int> found{{1.0, 99}};
    EXPECT_EQ(tree.find_nearest_Manhatten(found, point(), PhysicalSpace::tvector(1, 1, 0)), 4u);
    const std::multimap<double, int> expected{{0.0, 0}, {1.0, 99}, {1.0, 2}, {1.0, 1}, {1.0, 3}};
    EXPECT_EQ(found, expected);
    int calls = 0;
    tree.forEachInBox(Key(), Key(1.0), [&](int, double) { return ++calls < 2; });
    EXPECT_EQ(calls, 2);
}

// Far from the origin of a query, keys on both sides of a split are equally distant once rounded.
TEST(OrvixKDTree, RoundingHidesNoEntry) {
    KDTree<3, int> tree;
    tree.insert(Key(1.0), 0);
    tree.insert(Key(0.5), 1);
    const Hits both{{0, 3e17}, {1, 3e17}};
    EXPECT_EQ(search(tree, Key(1e17), Key(1e17)), both);
}

TEST(OrvixKDTree, NaNIsNeitherKeptNorFound) {
    KDTree<3, int> tree;
    for (int axis = 0; axis < 3; ++axis) {
        Key key(1.0);
        key[axis] = kNaN;
        EXPECT_FALSE(tree.insert(key, axis));
        EXPECT_TRUE(tree.empty());
    }
    tree.insert(Key(1.0), 1);
    EXPECT_TRUE(search(tree, Key(1.0, kNaN, 1.0), Key(9.0)).empty());
    EXPECT_TRUE(search(tree, Key(1.0), Key(9.0, kNaN, 9.0)).empty());
    EXPECT_TRUE(search(tree, Key(1.0), Key(-1.0)).empty());
}

} // namespace
