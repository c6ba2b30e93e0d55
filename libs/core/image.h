#pragma once

// core::Image: the picture type the application's processes pass around. A format, a size,
// up to three planes of bytes with a stride each, and a pixel aspect ratio.
//
// BufferImage owns its planes. subImage() and overridePixelAspectRatio() return light views
// that share the planes of the image they wrap and keep it alive; clone() makes an owned copy,
// with margins if asked. Images are shared through fn::AutoPtr and must live in one (create
// them with fn::makeAuto): a view takes a strong reference to its source. Their shape never
// changes once built; the pixels may be changed in place through mutableData(), views
// included. Any thread may use an image; concurrent writers to the same pixels are the
// caller's to keep apart.

#include <cstdint>

#include "core/export.h"
#include "core/fraction.h"
#include "foundation/byte_array.h"
#include "foundation/object.h"

namespace core {

/// Margins added around an image by Image::clone, in pixels of plane 0.
struct Margins {
  uint32_t left = 0;
  uint32_t top = 0;
  uint32_t right = 0;
  uint32_t bottom = 0;
};

class CORE_EXPORT Image : public fn::RefCountedObject {
public:
  /// The meaning of the packed formats (channel order) belongs to the application; only the
  /// plane layout matters here.
  enum class Format : uint32_t {
    None = 0,
    JPEG = 1,  ///< compressed bytes in plane 0; no pixels to address
    Packed8 = 2,
    YUV_444 = 3,
    YUV_422 = 4,
    YUV_420 = 5,
    Packed32A = 6,
    Packed32B = 7,
    Packed32C = 8,
    Packed32D = 9,
  };
  static constexpr unsigned MAX_PLANES = 3;

  virtual Format format() const = 0;
  virtual uint32_t width() const = 0;
  virtual uint32_t height() const = 0;
  virtual uint32_t stride(unsigned plane) const = 0;
  virtual uint8_t const* data(unsigned plane) const = 0;
  virtual uint8_t* mutableData(unsigned plane) = 0;
  /// The bytes of the plane that data(plane) gives access to.
  virtual uint64_t size(unsigned plane) const = 0;
  virtual Fraction pixelAspectRatio() const = 0;

  /// Formats outside the enumeration have no planes and one byte per pixel.
  static unsigned planeCountForFormat(Format format);
  /// Bytes per pixel: 0 for JPEG, 4 for the Packed32 formats, 1 for the others.
  static unsigned pixelSizeForFormat(Format format);
  /// Shifts (not factors) of the chroma planes 1 and 2: a shift of 1 halves that dimension.
  static unsigned horizontalChromaSubsamplingForFormat(Format format);
  static unsigned verticalChromaSubsamplingForFormat(Format format);

  unsigned planeCount() const { return planeCountForFormat(format()); }
  unsigned pixelSize() const { return pixelSizeForFormat(format()); }
  /// 0 for plane 0, the format's shift for planes 1 and 2.
  unsigned horizontalSubsampling(unsigned plane) const;
  unsigned verticalSubsampling(unsigned plane) const;

  /// The byte offset of pixel (x, y), given in plane-0 pixels, inside `plane`.
  uint32_t offsetForPixel(uint32_t x, uint32_t y, unsigned plane) const;

  /// The size at which the image is shown: a non-square pixel aspect ratio enlarges one
  /// dimension and never shrinks the other.
  uint32_t displayWidth() const;
  uint32_t displayHeight() const;

  /// An owned copy with `margins` added around it. Margin pixels of 4-byte formats get `fill`;
  /// in 1-byte formats the margin bytes of plane p get byte p of `fill` (plane 0 the lowest).
  /// A JPEG image is copied as it is.
  fn::AutoPtr<Image> clone(Margins const& margins = {}, unsigned fill = 0) const;

  /// A view of the rectangle; it must lie inside the image (an assertion; the view is then cut
  /// to the image).
  fn::AutoPtr<Image const> subImage(uint32_t x, uint32_t y, uint32_t width, uint32_t height) const;
  fn::AutoPtr<Image> subImage(uint32_t x, uint32_t y, uint32_t width, uint32_t height);

  /// A view with another pixel aspect ratio; the image itself for a ratio with denominator 0.
  fn::AutoPtr<Image const> overridePixelAspectRatio(Fraction const& ratio) const;
  fn::AutoPtr<Image> overridePixelAspectRatio(Fraction const& ratio);
};

/// An image that owns its planes.
class CORE_EXPORT BufferImage : public Image {
public:
  /// An empty image: no size, no bytes.
  BufferImage(Format format, Fraction pixelAspectRatio);
  /// A single-plane image of any format but JPEG and the YUV ones. With `stride` 0 the stride
  /// becomes the row's bytes rounded up to a multiple of 8 and `data` is resized to fill the
  /// rows; a given stride is taken as it is, with `data` as it is.
  BufferImage(Format format,
              uint32_t width,
              uint32_t height,
              uint32_t stride,
              fn::ByteArray data,
              Fraction pixelAspectRatio);
  /// All planes and strides as given. Each plane of the format must hold its rows (an
  /// assertion).
  BufferImage(Format format,
              uint32_t width,
              uint32_t height,
              uint32_t stride0,
              uint32_t stride1,
              uint32_t stride2,
              fn::ByteArray plane0,
              fn::ByteArray plane1,
              fn::ByteArray plane2,
              Fraction pixelAspectRatio);
  /// A JPEG image holding a copy of the compressed bytes.
  BufferImage(uint32_t width, uint32_t height, fn::ByteView jpeg, Fraction pixelAspectRatio);
  /// A deep copy of any image, strides included.
  explicit BufferImage(Image const& image);

  Format format() const override { return _format; }
  uint32_t width() const override { return _width; }
  uint32_t height() const override { return _height; }
  uint32_t stride(unsigned plane) const override;
  uint8_t const* data(unsigned plane) const override;
  uint8_t* mutableData(unsigned plane) override;
  uint64_t size(unsigned plane) const override;
  Fraction pixelAspectRatio() const override { return _pixelAspectRatio; }

private:
  Format _format;
  uint32_t _width = 0;
  uint32_t _height = 0;
  uint32_t _strides[MAX_PLANES] = {};
  fn::ByteArray _planes[MAX_PLANES];
  Fraction _pixelAspectRatio;
};

}  // namespace core
