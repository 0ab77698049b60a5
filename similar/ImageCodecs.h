#pragma once

#include <opencv2/core/mat.hpp>

#include <string>

// OpenCV's image decoders, reached through a module that is loaded on the first decode.
// The codec library pulls in more than a hundred others (GDAL, poppler, HDF5, ...) whose
// loading would slow down every start, even of runs that never decode an image.
// Loading happens once per process and is safe from any number of threads. When the
// module cannot be loaded, one log line says why and every call returns an empty matrix,
// so callers go on to their other readers.
class ImageCodecs
{
public:
    // cv::IMREAD_COLOR and cv::IMREAD_REDUCED_COLOR_8, so that callers need not include the
    // codec header; the module checks at compile time that they still match.
    static constexpr int ReadColor = 1;
    static constexpr int ReadReducedColor8 = 65;

    // cv::imdecode and cv::imread; OpenCV's exceptions reach the caller unchanged.
    static cv::Mat decode(const cv::Mat &bytes, int flags);
    static cv::Mat read(const std::string &path, int flags);
    // Loads the module when that has not been tried yet.
    static bool isAvailable();

    // What the module's entry point hands out. A module built from other sources (an old
    // installation, say) is refused unless its version is this one.
    struct Table
    {
        int version;
        cv::Mat (*decode)(const cv::Mat &bytes, int flags);
        cv::Mat (*read)(const std::string &path, int flags);
    };
    static constexpr int tableVersion = 1;
    // The module's one exported symbol: extern "C" const ImageCodecs::Table *twinfoldImageCodecs().
    static constexpr const char *entryPoint = "twinfoldImageCodecs";
    using EntryPoint = const Table *(*)();

private:
    static const Table *table();
};
