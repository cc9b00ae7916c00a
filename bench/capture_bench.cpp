// Every frame of a file through OpenCV's reader, as run_bench.py's comparison.
#include <opencv2/videoio.hpp>

#include <cstdio>

int main(int argc, char** argv)
{
    cv::VideoCapture capture;
    if (argc != 2 || !capture.open(argv[1], cv::CAP_FFMPEG)) return 1;
    long frames = 0;
    for (cv::Mat frame; capture.read(frame);)
        ++frames;
    std::printf("frames %ld\n", frames);
    return frames > 0 ? 0 : 1;
}
