// How much of a motion statistics plane changed between two VIN frames.
#pragma once

#include <cstdint>

namespace vesk {
namespace encoder {
namespace internal {

constexpr uint8_t kMotionCellThreshold = 5;  // a cell changed by 5 or more counts

// Cells of a width x height plane (rows pitch bytes apart) whose value
// differs by kMotionCellThreshold or more between the two planes.
uint32_t CountChangedCells(const uint8_t* previous, const uint8_t* current, uint32_t width,
                           uint32_t height, uint32_t pitch);
// The same count, one cell at a time (the reference of the vector path).
uint32_t CountChangedCellsPlain(const uint8_t* previous, const uint8_t* current, uint32_t width,
                                uint32_t height, uint32_t pitch);
// The motion level (0, 25, 51, 76, 102, 128) of `count` changed cells out of `cells`.
uint8_t MotionLevel(uint32_t count, uint32_t cells);

}  // namespace internal
}  // namespace encoder
}  // namespace vesk
