// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "search/kd_tree.hpp"

namespace qorv {

template class KdTree<3, int32_t>;
template class KdTree<3, uint64_t>;
template class KdTree<33, int32_t>;

}  // namespace qorv
