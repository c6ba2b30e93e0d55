#include "core/image.h"

#include <gtest/gtest.h>

#include <cstring>

#include "../foundation/support.h"

namespace core {
namespace {

using fn::testing::AssertionRecorder;
using Format = Image::Format;

/// A planar image whose byte at (x, y) of plane p is p * 64 + y * 8 + x, rows padded by 8.
fn::AutoPtr<Image> yuv(Format format, uint32_t width, uint32_t height) {
  fn::ByteArray planes[3];
  uint32_t strides[3];
  for (unsigned p = 0; p < 3; ++p) {
    unsigned hs = p ? Image::horizontalChromaSubsamplingForFormat(format) : 0;
    unsigned vs = p ? Image::verticalChromaSubsamplingForFormat(format) : 0;
    strides[p] = (width >> hs) + 8;
    planes[p].resize(strides[p] * (height >> vs));
    for (uint32_t i = 0; i < planes[p].size(); ++i)
      planes[p][i] = static_cast<uint8_t>(p * 64 + i / strides[p] * 8 + i % strides[p]);
  }
  return fn::makeAuto<BufferImage>(format, width, height, strides[0], strides[1], strides[2],
                                   planes[0], planes[1], planes[2], Fraction(1, 1));
}

uint32_t pixel32(Image const& image, uint32_t x, uint32_t y) {
  uint32_t value;
  std::memcpy(&value, image.data(0) + image.offsetForPixel(x, y, 0), 4);
  return value;
}

TEST(Image, StridesOffsetsAndDisplaySize) {
  struct Stride {
    Format format;
    uint32_t width, stride;
    size_t dataSize, expectedStride, expectedSize;
  };
  for (auto const& c : std::vector<Stride>{{Format::Packed32A, 10, 0, 0, 40, 80},
                                           {Format::Packed32D, 3, 0, 0, 16, 32},
                                           {Format::Packed8, 3, 0, 100, 8, 16},
                                           {Format::Packed8, 3, 5, 7, 5, 7}}) {  // kept as given
    BufferImage image(c.format, c.width, 2, c.stride, fn::ByteArray(c.dataSize), Fraction(1, 1));
    EXPECT_EQ(image.stride(0), c.expectedStride);
    EXPECT_EQ(image.size(0), c.expectedSize);
  }

  BufferImage packed(Format::Packed32B, 10, 4, 0, {}, Fraction(1, 1));
  EXPECT_EQ(packed.offsetForPixel(5, 3, 0), 40u * 3 + 5 * 4);
  EXPECT_EQ(yuv(Format::YUV_420, 16, 8)->offsetForPixel(5, 3, 1), 16u * 1 + 2);  // x 2, y 1
  EXPECT_EQ(yuv(Format::YUV_422, 16, 8)->offsetForPixel(5, 3, 2), 16u * 3 + 2);  // x 2, y 3
  EXPECT_EQ(Image::planeCountForFormat(Format(42)), 0u);

  // A ratio with a zero term (from a confused peer) changes nothing rather than dividing by 0.
  for (auto [ratio, width, height] : {std::tuple{Fraction(2, 1), 200u, 50u},
                                      {Fraction(1, 2), 100u, 100u},
                                      {Fraction(1, 1), 100u, 50u},
                                      {Fraction(3, 0), 100u, 50u},
                                      {Fraction(0, 3), 100u, 50u}}) {
    BufferImage image(Format::Packed8, 100, 50, 0, {}, ratio);
    EXPECT_EQ(std::pair(image.displayWidth(), image.displayHeight()), std::pair(width, height))
        << ratio.toString();
  }
}

TEST(Image, SinglePlaneConstructorRefusesCompressedAndPlanarFormats) {
  AssertionRecorder recorder;
  for (Format refused : {Format::JPEG, Format::YUV_420, Format::YUV_422, Format::YUV_444})
    BufferImage(refused, 4, 4, 0, {}, Fraction(1, 1));
  ASSERT_EQ(recorder.failures().size(), 4u);
  auto failure = recorder.failures()[0];
  EXPECT_EQ(failure.condition,
            "format != Image::Format::JPEG && format != Image::Format::YUV_420 && format != "
            "Image::Format::YUV_422 && format != Image::Format::YUV_444");
  // The source and line every report carries are proven by the foundation's diagnostics suite.
  EXPECT_EQ(failure.function, "BufferImage");
}

TEST(Image, ViewsShareThePlanesOfTheirSource) {
  auto source = yuv(Format::YUV_420, 16, 8);
  auto view = source->subImage(4, 2, 10, 6)->subImage(2, 2, 4, 2);
  for (unsigned p = 0; p < 3; ++p)
    EXPECT_EQ(view->data(p), source->data(p) + source->offsetForPixel(6, 4, p));
  view->mutableData(0)[0] = 0xee;
  EXPECT_EQ(source->data(0)[source->offsetForPixel(6, 4, 0)], 0xee);

  // The last row of a view away from the left edge stops at the end of the source, so a copy
  // of the view reads nothing beyond it.
  auto corner = source->subImage(12, 6, 4, 2);
  EXPECT_EQ(corner->size(0), 24u + 12u);
  BufferImage copy(*corner);
  EXPECT_EQ(copy.stride(0), 24u);
  EXPECT_EQ(std::memcmp(copy.data(1), corner->data(1), copy.size(1)), 0);

  AssertionRecorder recorder;
  auto outside = source->subImage(14, 6, 4, 4);
  EXPECT_EQ(recorder.failures().size(), 1u);
  EXPECT_EQ(std::pair(outside->width(), outside->height()), std::pair(2u, 2u)) << "cut to fit";

  fn::AutoPtr<Image const> same = source->overridePixelAspectRatio(Fraction(4, 0));
  EXPECT_EQ(same.get(), source.get());
  auto wide = source->overridePixelAspectRatio(Fraction(2, 1));
  EXPECT_EQ(wide->data(2), source->data(2));
  EXPECT_EQ(wide->displayWidth(), 32u);
  EXPECT_EQ(source->pixelAspectRatio(), Fraction(1, 1));
}

TEST(Image, CloneAddsFilledMarginsAroundACopy) {
  Margins const margins{.left = 2, .top = 4, .right = 6, .bottom = 2};
  auto planar = yuv(Format::YUV_420, 8, 4)->subImage(2, 0, 6, 4);
  auto copy = planar->clone(margins, 0x00332211);
  ASSERT_EQ(std::pair(copy->width(), copy->height()), std::pair(14u, 10u));
  for (unsigned p = 0; p < 3; ++p) {
    unsigned s = p ? 1 : 0;  // YUV_420 halves both dimensions of the chroma planes
    EXPECT_EQ(copy->stride(p), p ? 8u : 16u);
    for (uint32_t y = 0; y < (10u >> s); ++y) {
      for (uint32_t x = 0; x < (14u >> s); ++x) {
        uint32_t left = 2 >> s, top = 4 >> s;
        bool inside = x >= left && x < left + (6 >> s) && y >= top && y < top + (4 >> s);
        uint8_t expected =
            inside ? planar->data(p)[(y - top) * planar->stride(p) + x - left] : 0x11 * (p + 1);
        ASSERT_EQ(copy->data(p)[y * copy->stride(p) + x], expected) << p << ": " << x << "," << y;
      }
    }
  }

  fn::ByteArray pixels(3 * 2 * 4);
  for (size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = static_cast<uint8_t>(i);
  auto packed = fn::makeAuto<BufferImage>(Format::Packed32C, 3, 2, 12, pixels, Fraction(1, 1));
  auto framed = packed->clone({.left = 1, .top = 0, .right = 2, .bottom = 1}, 0xaabbccdd);
  EXPECT_EQ(pixel32(*framed, 1, 0), pixel32(*packed, 0, 0));
  EXPECT_EQ(pixel32(*framed, 3, 1), pixel32(*packed, 2, 1));
  for (auto [x, y] : {std::pair{0, 0}, {4, 1}, {2, 2}})
    EXPECT_EQ(pixel32(*framed, x, y), 0xaabbccddu);

  fn::ByteArray compressed{0xff, 0xd8, 0xff};
  BufferImage jpeg(640, 480, compressed, Fraction(1, 1));
  auto same = jpeg.clone(margins, 7);
  EXPECT_EQ(same->format(), Format::JPEG);
  EXPECT_EQ(std::pair(same->width(), same->height()), std::pair(640u, 480u));
  EXPECT_EQ(fn::ByteArray(same->data(0), same->data(0) + same->size(0)), compressed);
}

}  // namespace
}  // namespace core
