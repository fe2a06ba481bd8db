#include "zephlo/events/drawing.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace zephlo {
namespace {

struct DrawingCase {
  const char* name;
  ValueMap data;
  Rect bounds;
};

ValueMap drawing(std::initializer_list<ValueMap::Entry> extra) {
  ValueMap data{{"type", "Drawing"}, {"id", "d1"}};
  for (const auto& [k, v] : extra) data.set(k, v);
  return data;
}

TEST(ZPHDrawingTest, BoundsComeWholeOrNotAtAll) {
  const double kInf = std::numeric_limits<double>::infinity();
  const DrawingCase cases[] = {
      {"id alone", drawing({}), {{0, 0}, {1, 1}}},
      {"all four numbers", drawing({{"x", 10}, {"y", 20}, {"width", 300}, {"height", 400}}), {{10, 20}, {300, 400}}},
      // Width and height land in the size, whatever order the keys are read in.
      {"width and height distinct", drawing({{"x", 1}, {"y", 2}, {"height", 7}, {"width", 5}}), {{1, 2}, {5, 7}}},
      {"height missing", drawing({{"x", 10}, {"y", 20}, {"width", 300}}), {{0, 0}, {1, 1}}},
      {"x missing", drawing({{"y", 20}, {"width", 300}, {"height", 400}}), {{0, 0}, {1, 1}}},
      {"width as text", drawing({{"x", 10}, {"y", 20}, {"width", "300"}, {"height", 400}}), {{0, 0}, {1, 1}}},
      {"y as boolean", drawing({{"x", 10}, {"y", true}, {"width", 300}, {"height", 400}}), {{0, 0}, {1, 1}}},
      {"every number kind", drawing({{"x", -3}, {"y", 4u}, {"width", 2.5f}, {"height", 0.25}}), {{-3, 4}, {2.5, 0.25}}},
      // Coordinates travel as 32-bit floats: 0.1 comes back as float's 0.1.
      {"narrowed to float",
       drawing({{"x", 0.1}, {"y", 16777217}, {"width", 1e39}, {"height", -1e300}}),
       {{static_cast<double>(0.1f), 16777216}, {kInf, -kInf}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto parsed = ZPHDrawing::from(c.data);
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(parsed->bounds(), c.bounds);
    EXPECT_EQ(parsed->id(), "d1");
  }
}

TEST(ZPHDrawingTest, ImageAndMimeTypeAreOptional) {
  auto bare = ZPHDrawing::from(drawing({}));
  ASSERT_NE(bare, nullptr);
  EXPECT_EQ(bare->image(), nullptr);
  EXPECT_EQ(bare->mime_type(), std::nullopt);

  Bytes jpeg{0xff, 0xd8, 0xff, 0xd9};
  Value image(jpeg);
  auto full = ZPHDrawing::from(drawing({{"image", image}, {"mime_type", "image/jpeg"}, {"id", 7}}));
  ASSERT_NE(full, nullptr);
  // The bytes are shared with the received value, not copied.
  EXPECT_EQ(full->image(), image.sharedBytes());
  EXPECT_EQ(full->mime_type(), "image/jpeg");
  EXPECT_EQ(full->id(), "7");

  auto odd = ZPHDrawing::from(drawing({{"image", "not bytes"}, {"mime_type", 3}}));
  ASSERT_NE(odd, nullptr);
  EXPECT_EQ(odd->image(), nullptr);
  EXPECT_EQ(odd->mime_type(), "3");
}

TEST(ZPHDrawingTest, RejectsWithoutTypeOrId) {
  const Value rejected[] = {
      ValueMap{{"type", "Drawing"}, {"x", 1}, {"y", 1}, {"width", 1}, {"height", 1}},
      ValueMap{{"type", "drawing"}, {"id", "d1"}},
      ValueMap{{"id", "d1"}},
      ValueArray{ValueMap{{"type", "Drawing"}, {"id", "d1"}}},
      Value(),
  };
  for (const auto& data : rejected) EXPECT_EQ(ZPHDrawing::from(data), nullptr) << data.debugString();
}

}  // namespace
}  // namespace zephlo
