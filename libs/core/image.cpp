#include "core/image.h"

#include <algorithm>
#include <cstring>

#include "core/image_buffer.h"
#include "foundation/assert.h"

namespace core {
namespace {

struct FormatInfo {
  unsigned planes;
  unsigned pixelSize;
  unsigned horizontalShift;
  unsigned verticalShift;
};

// Indexed by the format's value; anything outside the enumeration is described as None.
constexpr FormatInfo FORMATS[] = {
    {0, 1, 0, 0},  // None
    {1, 0, 0, 0},  // JPEG
    {1, 1, 0, 0},  // Packed8
    {3, 1, 0, 0},  // YUV_444
    {3, 1, 1, 0},  // YUV_422
    {3, 1, 1, 1},  // YUV_420
    {1, 4, 0, 0},  // Packed32A
    {1, 4, 0, 0},  // Packed32B
    {1, 4, 0, 0},  // Packed32C
    {1, 4, 0, 0},  // Packed32D
};

FormatInfo const& formatInfo(Image::Format format) {
  auto index = static_cast<uint32_t>(format);
  return index < std::size(FORMATS) ? FORMATS[index] : FORMATS[0];
}

uint32_t roundUpTo8(uint64_t bytes) {
  return static_cast<uint32_t>((bytes + 7) & ~uint64_t(7));
}

/// The bytes a plane needs for `rows` rows of `rowBytes`: the last row needs no padding.
uint64_t bytesForRows(uint32_t stride, uint32_t rows, uint64_t rowBytes) {
  return rows == 0 ? 0 : uint64_t(stride) * (rows - 1) + rowBytes;
}

void fillPixels(uint8_t* at, uint64_t count, unsigned pixelSize, uint32_t value) {
  if (pixelSize == 1) {
    std::memset(at, static_cast<int>(value & 0xff), count);
    return;
  }
  for (uint64_t i = 0; i < count; ++i)
    std::memcpy(at + i * pixelSize, &value, pixelSize);
}

/// A rectangle of another image, sharing its planes.
class ViewportImage final : public Image {
public:
  ViewportImage(fn::AutoPtr<Image> source, uint32_t x, uint32_t y, uint32_t width, uint32_t height)
      : _source(std::move(source)),
        _width(width),
        _height(height) {
    for (unsigned p = 0; p < _source->planeCount() && p < MAX_PLANES; ++p) {
      _planeOffsets[p] = static_cast<uint32_t>(
          std::min<uint64_t>(_source->offsetForPixel(x, y, p), _source->size(p)));
    }
  }

  Format format() const override { return _source->format(); }
  uint32_t width() const override { return _width; }
  uint32_t height() const override { return _height; }
  uint32_t stride(unsigned plane) const override { return _source->stride(plane); }
  uint8_t const* data(unsigned plane) const override {
    auto const* bytes = _source->data(plane);
    return bytes && plane < MAX_PLANES ? bytes + _planeOffsets[plane] : bytes;
  }
  uint8_t* mutableData(unsigned plane) override {
    auto* bytes = _source->mutableData(plane);
    return bytes && plane < MAX_PLANES ? bytes + _planeOffsets[plane] : bytes;
  }
  // The rows of the view, but never past the end of the source: the last row of a view that
  // does not start at the left edge would otherwise run beyond the source's last byte.
  uint64_t size(unsigned plane) const override {
    if (plane >= MAX_PLANES)
      return 0;
    uint64_t rows = _height >> verticalSubsampling(plane);
    return std::min(uint64_t(stride(plane)) * rows, _source->size(plane) - _planeOffsets[plane]);
  }
  Fraction pixelAspectRatio() const override { return _source->pixelAspectRatio(); }

private:
  fn::AutoPtr<Image> _source;
  uint32_t _planeOffsets[MAX_PLANES] = {};
  uint32_t _width;
  uint32_t _height;
};

}  // namespace

// The single-plane constructor takes raw pixels of a packed format from a decoder or a
// capture API. Without a stride it lays the rows out itself, 8-byte aligned, and sizes the
// buffer to match; with a stride it trusts the producer, whose buffer may be larger (a
// reused pool buffer) or, for the last row, shorter than stride x height, so the data is
// neither resized nor checked. Compressed and planar formats need the other constructors.
//
// Failed assertions are reported by source and line: the format check below keeps its line.
BufferImage::BufferImage(Format format,
                         uint32_t width,
                         uint32_t height,
                         uint32_t stride,
                         fn::ByteArray data,
                         Fraction pixelAspectRatio)
    : _format(format),
      _width(width),
      _height(height),
      _pixelAspectRatio(pixelAspectRatio) {
  FN_ASSERT(format != Image::Format::JPEG && format != Image::Format::YUV_420 &&
            format != Image::Format::YUV_422 && format != Image::Format::YUV_444);
  if (stride == 0) {
    stride = roundUpTo8(uint64_t(width) * (format == Format::Packed8 ? 1 : 4));
    data.resize(size_t(stride) * height);
  }
  _strides[0] = stride;
  _planes[0] = std::move(data);
}

BufferImage::BufferImage(Format format, Fraction pixelAspectRatio)
    : _format(format),
      _pixelAspectRatio(pixelAspectRatio) {}

BufferImage::BufferImage(Format format,
                         uint32_t width,
                         uint32_t height,
                         uint32_t stride0,
                         uint32_t stride1,
                         uint32_t stride2,
                         fn::ByteArray plane0,
                         fn::ByteArray plane1,
                         fn::ByteArray plane2,
                         Fraction pixelAspectRatio)
    : _format(format),
      _width(width),
      _height(height),
      _strides{stride0, stride1, stride2},
      _planes{std::move(plane0), std::move(plane1), std::move(plane2)},
      _pixelAspectRatio(pixelAspectRatio) {
  for (unsigned p = 0; p < planeCount(); ++p) {
    uint64_t rowBytes = uint64_t(width >> horizontalSubsampling(p)) * pixelSize();
    uint64_t needed = bytesForRows(_strides[p], height >> verticalSubsampling(p), rowBytes);
    FN_ASSERT(_planes[p].size() >= needed, p, _planes[p].size(), needed);
  }
}

BufferImage::BufferImage(uint32_t width,
                         uint32_t height,
                         fn::ByteView jpeg,
                         Fraction pixelAspectRatio)
    : _format(Format::JPEG),
      _width(width),
      _height(height),
      _pixelAspectRatio(pixelAspectRatio) {
  _planes[0].assign(jpeg.begin(), jpeg.end());
}

BufferImage::BufferImage(Image const& image)
    : _format(image.format()),
      _width(image.width()),
      _height(image.height()),
      _pixelAspectRatio(image.pixelAspectRatio()) {
  for (unsigned p = 0; p < image.planeCount(); ++p) {
    _strides[p] = image.stride(p);
    if (auto const* bytes = image.data(p))
      _planes[p].assign(bytes, bytes + image.size(p));
  }
}

uint32_t BufferImage::stride(unsigned plane) const {
  return plane < MAX_PLANES ? _strides[plane] : 0;
}

uint8_t const* BufferImage::data(unsigned plane) const {
  return plane < MAX_PLANES ? _planes[plane].data() : nullptr;
}

uint8_t* BufferImage::mutableData(unsigned plane) {
  return plane < MAX_PLANES ? _planes[plane].data() : nullptr;
}

uint64_t BufferImage::size(unsigned plane) const {
  return plane < MAX_PLANES ? _planes[plane].size() : 0;
}

namespace {

/// Another image with another pixel aspect ratio.
class OverrideParImage final : public Image {
public:
  OverrideParImage(fn::AutoPtr<Image> source, Fraction pixelAspectRatio)
      : _source(std::move(source)),
        _pixelAspectRatio(pixelAspectRatio) {}

  Format format() const override { return _source->format(); }
  uint32_t width() const override { return _source->width(); }
  uint32_t height() const override { return _source->height(); }
  uint32_t stride(unsigned plane) const override { return _source->stride(plane); }
  uint8_t const* data(unsigned plane) const override { return _source->data(plane); }
  uint8_t* mutableData(unsigned plane) override { return _source->mutableData(plane); }
  uint64_t size(unsigned plane) const override { return _source->size(plane); }
  Fraction pixelAspectRatio() const override { return _pixelAspectRatio; }

private:
  fn::AutoPtr<Image> _source;
  Fraction _pixelAspectRatio;
};

}  // namespace

unsigned Image::planeCountForFormat(Format format) {
  return formatInfo(format).planes;
}

unsigned Image::pixelSizeForFormat(Format format) {
  return formatInfo(format).pixelSize;
}

unsigned Image::horizontalChromaSubsamplingForFormat(Format format) {
  return formatInfo(format).horizontalShift;
}

unsigned Image::verticalChromaSubsamplingForFormat(Format format) {
  return formatInfo(format).verticalShift;
}

unsigned Image::horizontalSubsampling(unsigned plane) const {
  return plane == 0 ? 0 : horizontalChromaSubsamplingForFormat(format());
}

unsigned Image::verticalSubsampling(unsigned plane) const {
  return plane == 0 ? 0 : verticalChromaSubsamplingForFormat(format());
}

uint32_t Image::offsetForPixel(uint32_t x, uint32_t y, unsigned plane) const {
  x >>= horizontalSubsampling(plane);
  y >>= verticalSubsampling(plane);
  return stride(plane) * y + pixelSize() * x;
}

// A ratio from another process may be anything; one that cannot be applied (a zero term)
// leaves the size as it is rather than dividing by zero.
uint32_t Image::displayWidth() const {
  Fraction ratio = pixelAspectRatio();
  int32_t n = ratio.numerator(), d = ratio.denominator();
  if (n > d && d != 0)
    return (static_cast<uint32_t>(n) * width()) / static_cast<uint32_t>(d);
  return width();
}

uint32_t Image::displayHeight() const {
  Fraction ratio = pixelAspectRatio();
  int32_t n = ratio.numerator(), d = ratio.denominator();
  if (d > n && n != 0)
    return (static_cast<uint32_t>(d) * height()) / static_cast<uint32_t>(n);
  return height();
}

fn::AutoPtr<Image const> Image::subImage(uint32_t x,
                                         uint32_t y,
                                         uint32_t width,
                                         uint32_t height) const {
  return const_cast<Image*>(this)->subImage(x, y, width, height);
}

fn::AutoPtr<Image> Image::subImage(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
  FN_ASSERT(refCount() > 0);
  FN_ASSERT(x <= this->width() && width <= this->width() - x && y <= this->height() &&
                height <= this->height() - y,
            x, y, width, height);
  // Cut to the image, so that a bad rectangle costs a smaller view, not foreign memory.
  x = std::min(x, this->width());
  y = std::min(y, this->height());
  width = std::min(width, this->width() - x);
  height = std::min(height, this->height() - y);
  return fn::makeAuto<ViewportImage>(fn::AutoPtr<Image>(this), x, y, width, height);
}

fn::AutoPtr<Image const> Image::overridePixelAspectRatio(Fraction const& ratio) const {
  return const_cast<Image*>(this)->overridePixelAspectRatio(ratio);
}

fn::AutoPtr<Image> Image::overridePixelAspectRatio(Fraction const& ratio) {
  if (ratio.denominator() == 0)
    return fn::AutoPtr<Image>(this);
  FN_ASSERT(refCount() > 0);
  return fn::makeAuto<OverrideParImage>(fn::AutoPtr<Image>(this), ratio);
}

fn::AutoPtr<Image> Image::clone(Margins const& margins, unsigned fill) const {
  if (format() == Format::JPEG)
    return fn::makeAuto<BufferImage>(width(), height(), fn::ByteView(data(0), size(0)),
                                     pixelAspectRatio());
  uint64_t fullWidth = uint64_t(width()) + margins.left + margins.right;
  uint64_t fullHeight = uint64_t(height()) + margins.top + margins.bottom;
  FN_ASSERT(fullWidth <= UINT32_MAX && fullHeight <= UINT32_MAX, fullWidth, fullHeight);
  unsigned pixel = pixelSize();
  uint32_t strides[MAX_PLANES] = {};
  fn::ByteArray planes[MAX_PLANES];
  for (unsigned p = 0; p < planeCount(); ++p) {
    unsigned hs = horizontalSubsampling(p), vs = verticalSubsampling(p);
    uint64_t planeWidth = fullWidth >> hs, planeHeight = fullHeight >> vs;
    uint64_t left = margins.left >> hs, top = margins.top >> vs;
    uint64_t sourceWidth = width() >> hs, sourceRows = height() >> vs;
    uint64_t rowBytes = sourceWidth * pixel;
    uint32_t value = pixel == 4 ? fill : (fill >> (8 * p)) & 0xff;
    uint32_t stride = strides[p] = roundUpTo8(planeWidth * pixel);
    fn::ByteArray& plane = planes[p];
    internal::allocatePlane(plane, size_t(stride * planeHeight));

    // Only rows that lie wholly inside the source's bytes are read.
    uint32_t sourceStride = this->stride(p);
    uint64_t sourceSize = size(p);
    uint64_t readable = 0;
    if (sourceSize >= rowBytes) {
      readable = sourceStride == 0
                     ? sourceRows
                     : std::min(sourceRows, (sourceSize - rowBytes) / sourceStride + 1);
    }
    uint8_t const* source = data(p);
    for (uint64_t row = 0; row < planeHeight; ++row) {
      uint8_t* line = plane.data() + row * stride;
      if (row < top || row >= top + sourceRows) {
        fillPixels(line, planeWidth, pixel, value);
        continue;
      }
      uint64_t sourceRow = row - top;
      fillPixels(line, left, pixel, value);
      if (sourceRow < readable && rowBytes > 0)
        std::memcpy(line + left * pixel, source + sourceRow * sourceStride, rowBytes);
      fillPixels(line + left * pixel + rowBytes, planeWidth - left - sourceWidth, pixel, value);
    }
  }
  return fn::makeAuto<BufferImage>(format(), uint32_t(fullWidth), uint32_t(fullHeight), strides[0],
                                   strides[1], strides[2], std::move(planes[0]),
                                   std::move(planes[1]), std::move(planes[2]), pixelAspectRatio());
}

}  // namespace core
