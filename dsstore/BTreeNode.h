#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace dsstore {

// A node of the records tree while a store is being laid out.
struct BTreeNode {
    std::uint32_t blockID = 0;
    bool isLeaf = true;
    // Positions in the sorted record list.
    std::vector<std::size_t> records;
    // For an inner node, one more than records: children[i] holds what sorts before records[i],
    // and the last is the rightmost child.
    std::vector<std::shared_ptr<BTreeNode>> children;
};

} // namespace dsstore
