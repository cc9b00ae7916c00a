// velstream-make-model: writes the tiny detector of bright squares as an ONNX file.
#include "square_detector.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>

namespace {

using namespace velstream::test;

const std::map<std::string, ModelOutput> kOutputs{
    {"yolov8", ModelOutput::yolov8}, {"yolov5", ModelOutput::yolov5}, {"ssd", ModelOutput::ssd}};

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Writes a model that finds bright squares on a dark ground.");
    SquareDetector detector;
    std::string size = "320x180";
    std::string path;
    app.add_option("--module", detector.output, "how boxes are written: yolov8 (default), yolov5, ssd")
        ->transform(CLI::CheckedTransformer(kOutputs));
    app.add_option("--size", size, "of the input, WxH");
    app.add_option("--square", detector.square, "side of the squares in the input")->check(CLI::Range(4, 512));
    app.add_option("file", path, "to write")->required();
    CLI11_PARSE(app, argc, argv);
    if (std::sscanf(size.c_str(), "%dx%d", &detector.width, &detector.height) != 2 ||
        detector.width < detector.square || detector.height < detector.square) {
        std::fprintf(stderr, "velstream-make-model: %s is no size that holds the square\n", size.c_str());
        return 1;
    }
    write_file(path, make_square_detector(detector));
    return 0;
}
