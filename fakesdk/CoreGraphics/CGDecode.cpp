// JPEG (libjpeg-turbo) and PNG (libpng) decoding into premultiplied BGRA. A picture decodes whole
// when it is small enough to keep; a larger one decodes reduced, as ImageIO makes its
// subsampled images: a JPEG through the decoder's own DCT scaling, a PNG row by row through a box
// filter, so that memory follows the reduced size and never the size the header claims.
#include "CGInternal.h"

#include <png.h>
#include <turbojpeg.h>

#include <csetjmp>
#include <cstring>
#include <new>

namespace fakecg {

namespace {

const uint8_t kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

// Every byte is written by the decoders, so buffers are not cleared first (a frame's worth of
// memset is a measurable share of decoding).
std::unique_ptr<uint8_t[]> allocatePixels(size_t width, size_t height)
{
    return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[width * height * 4]);
}

bool fits(size_t width, size_t height, const DecodeLimit &limit)
{
    return width <= limit.side && height <= limit.side && width * height <= limit.pixels;
}

// One decompressor per thread, for its header reads and decodes alike: a handle is reusable after
// a failed call, and making one per picture costs more than reading a frame's header.
tjhandle decompressor()
{
    thread_local const std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitDecompress(), tjDestroy);
    return handle.get();
}

bool decodeJPEG(const uint8_t *bytes, size_t size, const PictureHeader &header, const DecodeLimit &limit, Bitmap &out)
{
    tjhandle handle = decompressor();
    if (!handle)
        return false;
    // The largest of the decoder's reductions (they come largest first) that fits the limit.
    int count = 0;
    const tjscalingfactor *factors = tjGetScalingFactors(&count);
    int width = 0, height = 0;
    for (int i = 0; i < count && !width; ++i) {
        if (factors[i].num > factors[i].denom)
            continue;
        int w = TJSCALED(int(header.width), factors[i]), h = TJSCALED(int(header.height), factors[i]);
        if (fits(size_t(w), size_t(h), limit))
            width = w, height = h;
    }
    if (!width)
        return false;
    auto pixels = allocatePixels(size_t(width), size_t(height));
    if (!pixels)
        return false;
    if (tjDecompress2(handle, bytes, static_cast<unsigned long>(size), pixels.get(), width, width * 4, height,
            TJPF_BGRA, 0)
            != 0
        && tjGetErrorCode(handle) != TJERR_WARNING)
        return false;
    // A warning (typically a truncated scan) still leaves a picture, as ImageIO's lenient decoding
    // does: the missing part stays grey.
    out = {std::move(pixels), size_t(width), size_t(height)};
    return true;
}

void premultiply(uint8_t *pixels, size_t count)
{
    for (uint8_t *p = pixels, *end = pixels + count * 4; p != end; p += 4) {
        unsigned a = p[3];
        p[0] = uint8_t((p[0] * a + 127) / 255);
        p[1] = uint8_t((p[1] * a + 127) / 255);
        p[2] = uint8_t((p[2] * a + 127) / 255);
    }
}

// Averages each factor × factor block of the rows it is given (blocks at the right and bottom
// edges may be smaller) into one pixel of the output.
class BoxReducer {
public:
    BoxReducer(size_t width, size_t height, size_t factor, uint8_t *out)
        : width_(width), height_(height), factor_(factor), outWidth_((width + factor - 1) / factor), out_(out),
          sums_(outWidth_ * 4)
    {
    }

    void add(const uint8_t *row)
    {
        uint32_t *sum = sums_.data();
        for (const uint8_t *end = row + width_ * 4; row != end; sum += 4)
            for (const uint8_t *block = row + std::min(factor_, size_t(end - row) / 4) * 4; row != block; row += 4) {
                sum[0] += row[0];
                sum[1] += row[1];
                sum[2] += row[2];
                sum[3] += row[3];
            }
        ++row_;
        if (row_ % factor_ != 0 && row_ != height_)
            return;
        size_t rows = row_ % factor_ ? row_ % factor_ : factor_;
        for (size_t x = 0; x < outWidth_; ++x) {
            size_t n = rows * std::min(factor_, width_ - x * factor_);
            for (int c = 0; c < 4; ++c)
                out_[x * 4 + c] = uint8_t((sums_[x * 4 + c] + n / 2) / n);
        }
        out_ += outWidth_ * 4;
        std::fill(sums_.begin(), sums_.end(), 0);
    }

private:
    size_t width_, height_, factor_, outWidth_, row_ = 0;
    uint8_t *out_;
    std::vector<uint32_t> sums_; // factor² x 255 fits for factors up to 4096 (libpng takes no side over 1,000,000)
};

// The whole PNG with libpng's simplified reader, which handles every colour type, bit depth,
// palette and interlacing.
std::unique_ptr<uint8_t[]> decodeWholePNG(const uint8_t *bytes, size_t size)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes, size))
        return nullptr;
    image.format = PNG_FORMAT_BGRA;
    auto pixels = allocatePixels(image.width, image.height);
    if (!pixels || !png_image_finish_read(&image, nullptr, pixels.get(), png_int_32(image.width * 4), nullptr)) {
        png_image_free(&image);
        return nullptr;
    }
    premultiply(pixels.get(), size_t(image.width) * image.height);
    return pixels;
}

struct PngSource {
    const uint8_t *bytes;
    size_t size;
    size_t offset;
};

void readFromMemory(png_structp png, png_bytep out, png_size_t length)
{
    auto *source = static_cast<PngSource *>(png_get_io_ptr(png));
    if (length > source->size - source->offset)
        png_error(png, "truncated PNG");
    std::memcpy(out, source->bytes + source->offset, length);
    source->offset += length;
}

// Nothing is printed, as by libpng's simplified reader: an error ends the decode (longjmp to the
// reader's setjmp), a warning is ignored.
void stopOnError(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}

void ignoreWarning(png_structp, png_const_charp) {}

// A non-interlaced PNG row by row, with libpng's classic reader set to give 8-bit BGRA, each row
// premultiplied and handed to the reducer: memory for one row and the reduced picture only.
bool decodePNGRows(const uint8_t *bytes, size_t size, BoxReducer &reducer, size_t width, size_t height)
{
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, stopOnError, ignoreWarning);
    if (!png)
        return false;
    png_infop info = png_create_info_struct(png);
    PngSource source{bytes, size, 0};
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[width * 4]);
    // Nothing with a destructor is made between here and the last libpng call.
    if (!info || !row || setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_set_read_fn(png, &source, readFromMemory);
    png_read_info(png, info);
    png_set_expand(png);
    png_set_scale_16(png);
    png_set_gray_to_rgb(png);
    png_set_bgr(png);
    png_set_filler(png, 0xFF, PNG_FILLER_AFTER);
    png_read_update_info(png, info);
    if (png_get_rowbytes(png, info) != width * 4)
        png_error(png, "unexpected row layout");
    for (size_t y = 0; y < height; ++y) {
        png_read_row(png, row.get(), nullptr);
        premultiply(row.get(), width);
        reducer.add(row.get());
    }
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

bool decodePNG(const uint8_t *bytes, size_t size, const PictureHeader &header, const DecodeLimit &limit, Bitmap &out)
{
    if (fits(header.width, header.height, limit)) {
        auto pixels = decodeWholePNG(bytes, size);
        if (!pixels)
            return false;
        out = {std::move(pixels), header.width, header.height};
        return true;
    }
    size_t factor = 2;
    while (!fits((header.width + factor - 1) / factor, (header.height + factor - 1) / factor, limit))
        ++factor;
    size_t width = (header.width + factor - 1) / factor, height = (header.height + factor - 1) / factor;
    auto pixels = allocatePixels(width, height);
    if (!pixels)
        return false;
    BoxReducer reducer(header.width, header.height, factor, pixels.get());
    if (header.interlaced) {
        // Interlaced rows arrive in seven passes over the whole picture: it decodes whole first.
        auto whole = decodeWholePNG(bytes, size);
        if (!whole)
            return false;
        for (size_t y = 0; y < header.height; ++y)
            reducer.add(whole.get() + y * header.width * 4);
    } else if (!decodePNGRows(bytes, size, reducer, header.width, header.height)) {
        return false;
    }
    out = {std::move(pixels), width, height};
    return true;
}

uint32_t bigEndian32(const uint8_t *p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

} // namespace

std::optional<PictureHeader> readPictureHeader(const uint8_t *bytes, size_t size, PictureFormat format)
{
    if (format == PictureFormat::jpeg && size >= 3 && bytes[0] == 0xFF && bytes[1] == 0xD8) {
        tjhandle handle = decompressor();
        int width = 0, height = 0, subsampling = 0, colorspace = 0;
        if (!handle
            || tjDecompressHeader3(
                   handle, bytes, static_cast<unsigned long>(size), &width, &height, &subsampling, &colorspace)
                != 0
            || width <= 0 || height <= 0)
            return std::nullopt;
        return PictureHeader{PictureFormat::jpeg, size_t(width), size_t(height), false};
    }
    if (format == PictureFormat::png && size >= 29 && std::memcmp(bytes, kPngSignature, 8) == 0) {
        // libpng checks the header chunk (and its own limits on the size); it is the first chunk,
        // so its fields sit at fixed places.
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        if (!png_image_begin_read_from_memory(&image, bytes, size))
            return std::nullopt;
        png_image_free(&image);
        return PictureHeader{PictureFormat::png, bigEndian32(bytes + 16), bigEndian32(bytes + 20), bytes[28] != 0};
    }
    return std::nullopt;
}

bool decodePicture(const uint8_t *bytes, size_t size, const PictureHeader &header, const DecodeLimit &limit,
    Bitmap &out)
{
    try {
        return header.format == PictureFormat::jpeg ? decodeJPEG(bytes, size, header, limit, out)
                                                    : decodePNG(bytes, size, header, limit, out);
    } catch (const std::bad_alloc &) {
        return false;
    }
}

} // namespace fakecg
