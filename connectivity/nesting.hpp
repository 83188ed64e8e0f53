// How deep values are nested.
//
// A container is a list or a map; texts, buffers and custom values are none, whatever they hold. A
// value that is no container has 0 levels; a container has one level more than the deepest value in
// it, where a map's keys count like its values: [] has 1 level, [1, 2] has 1, [1, [2]] has 2,
// {k=[1]} has 2, and so has {[1]=k}.
//
// The functions stop as soon as they know, and depth costs them no stack. Containers inside
// containers take memory from the heap (std::bad_alloc), flat values none. A value that is changed
// meanwhile raises the errors of details::ListWalk and map_t's iterators.
#pragma once

#include "connectivity/data_t.hpp"

namespace connectivity {

// Whether the value has more than `levels` levels. Any container has more than 0.
bool nestsDeeperThan(const data_t& value, unsigned levels);
// Whether a key or a value in the metadata has more than `levels` levels: the metadata map itself
// is not counted, so metadata without containers has none. (A data_t that holds the same map has
// one level more.)
bool nestsDeeperThan(const map_t& metadata, unsigned levels);
// Whether the payload or something in the metadata has more than `levels` levels.
bool nestsDeeperThan(const Message& message, unsigned levels);

}  // namespace connectivity
