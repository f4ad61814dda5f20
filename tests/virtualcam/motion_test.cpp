// Motion statistics planes: layout, alternation, following the scene, and
// the bounded wait of the blocking query.
#include <stdlib.h>

#include <thread>

#include "camera_fixture.h"

namespace {

class VirtualCameraMotionTest : public VirtualCameraTest {
 protected:
  void MapStatistics() {
    iav_querybuf_t query;
    memset(&query, 0, sizeof(query));  // buffer 0
    ASSERT_EQ(Request(IAV_IOC_QUERY_BUF, &query), 0);
    length_ = query.length;
    void* mapped = vdev_mmap(nullptr, length_ * 2, PROT_READ, MAP_SHARED, iav_, query.offset);
    ASSERT_NE(mapped, MAP_FAILED);
    stats_ = static_cast<const uint8_t*>(mapped);
  }
  void TearDown() override {
    if (stats_ != nullptr) vdev_munmap(const_cast<uint8_t*>(stats_), length_ * 2);
    VirtualCameraTest::TearDown();
  }

  iav_me0desc_t NextPlane(int fd) {
    iav_querydesc_t query;
    memset(&query, 0, sizeof(query));
    query.qid = IAV_DESC_ME0;
    EXPECT_EQ(vdev_ioctl(fd, IAV_IOC_QUERY_DESC, &query), 0);
    return query.arg.me0;
  }

  // Cells that changed by 5 or more between two planes.
  size_t Changed(const iav_me0desc_t& a, const iav_me0desc_t& b) const {
    size_t count = 0;
    for (uint32_t y = 0; y < a.height; ++y)
      for (uint32_t x = 0; x < a.width; ++x)
        count += abs(stats_[a.dataOffset + y * a.pitch + x] - stats_[b.dataOffset + y * b.pitch + x]) >= 5;
    return count;
  }

  const uint8_t* stats_ = nullptr;
  size_t length_ = 0;
};

TEST_F(VirtualCameraMotionTest, PlanesAlternateAndFollowTheScene) {
  ASSERT_NO_FATAL_FAILURE(MapStatistics());
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  vcam_set_scene(VCAM_SCENE_STILL);
  vcam_advance_ms(34);
  iav_me0desc_t first = NextPlane(iav_);
  EXPECT_EQ(first.width, 240u);
  EXPECT_EQ(first.height, 135u);
  EXPECT_GE(first.pitch, first.width);
  const size_t cells = first.width * first.height;

  vcam_advance_ms(34);
  iav_me0desc_t still = NextPlane(iav_);
  EXPECT_EQ(still.seqNum, first.seqNum + 1);
  EXPECT_NE(still.dataOffset, first.dataOffset);
  EXPECT_LE(still.dataOffset + still.height * still.pitch, length_ * 2);
  EXPECT_EQ(Changed(first, still), 0u);

  vcam_set_scene(VCAM_SCENE_MOVING);
  vcam_advance_ms(34);
  iav_me0desc_t moved = NextPlane(iav_);
  vcam_advance_ms(34);
  iav_me0desc_t moved2 = NextPlane(iav_);
  EXPECT_EQ(moved2.dataOffset, still.dataOffset);  // two places, alternating
  size_t moving = Changed(moved, moved2);
  EXPECT_GT(moving, 0u);
  EXPECT_LT(moving, cells / 16);

  vcam_set_scene(VCAM_SCENE_BUSY);
  vcam_advance_ms(34);
  iav_me0desc_t busy = NextPlane(iav_);
  vcam_advance_ms(34);
  iav_me0desc_t busy2 = NextPlane(iav_);
  EXPECT_GE(Changed(busy, busy2), cells / 4);
}

TEST_F(VirtualCameraMotionTest, BlockingQueryWaitsForTheNextFrame) {
  ASSERT_NO_FATAL_FAILURE(MapStatistics());
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  vcam_set_manual_wait_limit_ms(0);  // wait until time moves
  vcam_advance_ms(34);
  int fd = vdev_open(VDEV_PATH_IAV, O_RDWR);  // the motion thread's own descriptor
  ASSERT_GE(fd, 0);
  iav_me0desc_t first = NextPlane(fd);
  iav_me0desc_t next;
  std::thread waiter([&] { next = NextPlane(fd); });
  vcam_advance_ms(34);
  waiter.join();
  EXPECT_EQ(next.seqNum, first.seqNum + 1);

  // A reset wakes a waiter, which gets the latest plane again.
  std::thread woken([&] { next = NextPlane(fd); });
  vcam_reset();
  woken.join();
  vdev_close(fd);
}

}  // namespace
