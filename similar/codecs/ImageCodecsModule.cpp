// The module that holds OpenCV's image codecs; the engine loads it on its first decode.
// It links only OpenCV's core and codec libraries and exports a single entry point.

#include "similar/ImageCodecs.h"

#include <opencv2/imgcodecs.hpp>

static_assert(ImageCodecs::ReadColor == cv::IMREAD_COLOR);
static_assert(ImageCodecs::ReadReducedColor8 == cv::IMREAD_REDUCED_COLOR_8);

#if defined(_WIN32)
#define TWINFOLD_CODECS_EXPORT __declspec(dllexport)
#else
#define TWINFOLD_CODECS_EXPORT __attribute__((visibility("default")))
#endif

namespace {

cv::Mat decode(const cv::Mat &bytes, int flags)
{
    return cv::imdecode(bytes, flags);
}

cv::Mat read(const std::string &path, int flags)
{
    return cv::imread(path, flags);
}

constexpr ImageCodecs::Table codecsTable{ImageCodecs::tableVersion, &decode, &read};

} // namespace

extern "C" TWINFOLD_CODECS_EXPORT const ImageCodecs::Table *twinfoldImageCodecs()
{
    return &codecsTable;
}
