#pragma once

// From now on the n allocations through operator new succeed and every later one throws
// std::bad_alloc; -1 lets every allocation through again.
void FailAllocationsAfter(long n);
