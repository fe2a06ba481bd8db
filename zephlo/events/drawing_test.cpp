#include "zephlo/events/drawing.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace zephlo {
namespace {

ValueMap drawing(std::initializer_list<ValueMap::Entry> extra) {
  ValueMap data{{"type", "Drawing"}, {"id", "d1"}};
  for (const auto& [k, v] : extra) data.set(k, v);
  return data;
}

TEST(ZPHDrawingTest, BoundsComeWholeOrNotAtAll) {
  const double kInf = std::numeric_limits<double>::infinity();
  const Rect unit{{0, 0}, {1, 1}};
  const struct {
    const char* name;
    ValueMap data;
    Rect bounds;
  } cases[] = {
      {"id alone", drawing({}), unit},
      {"all four numbers", drawing({{"x", 10}, {"y", 20}, {"width", 300}, {"height", 400}}), {{10, 20}, {300, 400}}},
      // Width and height land in the size, whatever order the keys are read in.
      {"width and height distinct", drawing({{"x", 1}, {"y", 2}, {"height", 7}, {"width", 5}}), {{1, 2}, {5, 7}}},
      {"height missing", drawing({{"x", 10}, {"y", 20}, {"width", 300}}), unit},
      {"x missing", drawing({{"y", 20}, {"width", 300}, {"height", 400}}), unit},
      {"width as text", drawing({{"x", 10}, {"y", 20}, {"width", "300"}, {"height", 400}}), unit},
      {"y as boolean", drawing({{"x", 10}, {"y", true}, {"width", 300}, {"height", 400}}), unit},
      {"every number kind", drawing({{"x", -3}, {"y", 4u}, {"width", 2.5f}, {"height", 0.25}}), {{-3, 4}, {2.5, 0.25}}},
      // Coordinates travel as 32-bit floats.
      {"narrowed to float", drawing({{"x", 0.1}, {"y", 16777217}, {"width", 1e39}, {"height", -1e300}}),
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

TEST(ZPHDrawingTest, ImageAndMimeTypeAreOptionalTypeAndIdAreNot) {
  Value image(Bytes{0xff, 0xd8, 0xff, 0xd9});
  auto full = ZPHDrawing::from(drawing({{"image", image}, {"mime_type", "image/jpeg"}, {"id", 7}}));
  ASSERT_NE(full, nullptr);
  EXPECT_EQ(full->image(), image.sharedBytes());  // shared with the received value, not copied
  EXPECT_EQ(full->mime_type(), "image/jpeg");
  EXPECT_EQ(full->id(), "7");

  // Absent, an image that is not bytes, and a null (made here or decoded from
  // the wire) all read as no entry; a mime type of another kind reads as text.
  const Value wireNull(CborItem(CborItem::Kind::Null, 0, Bytes{0xf6}));
  const std::pair<ValueMap, std::optional<std::string>> cases[] = {{drawing({}), std::nullopt},
      {drawing({{"image", "not bytes"}, {"mime_type", 3}}), "3"}, {drawing({{"mime_type", Value()}}), std::nullopt},
      {drawing({{"mime_type", wireNull}}), std::nullopt}};
  for (const auto& [data, mimeType] : cases) {
    auto parsed = ZPHDrawing::from(data);
    ASSERT_NE(parsed, nullptr);
    EXPECT_EQ(parsed->image(), nullptr);
    EXPECT_EQ(parsed->mime_type(), mimeType) << Value(data).debugString();
  }

  for (const Value& data : {Value(ValueMap{{"type", "Drawing"}, {"x", 1}, {"y", 1}, {"width", 1}, {"height", 1}}),
                            Value(ValueMap{{"type", "drawing"}, {"id", "d1"}}), Value(ValueArray{drawing({})})})
    EXPECT_EQ(ZPHDrawing::from(data), nullptr) << data.debugString();
}

}  // namespace
}  // namespace zephlo
