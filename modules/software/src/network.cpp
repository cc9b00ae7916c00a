#include "network.h"

#include "gst_handles.h"
#include "onnx_header.h"

#include <opencv2/dnn.hpp>

#include <algorithm>
#include <filesystem>

namespace velstream::software {

namespace {

using MappedFilePtr = std::unique_ptr<GMappedFile, handles::Releaser<g_mapped_file_unref>>;

std::string in_quotes(const std::string& path)
{
    return "\"" + path + "\"";
}

OnnxHeader read_header(const std::string& path)
{
    if (path.empty()) throw NetworkError("No model is set.");
    std::error_code failure;
    if (!std::filesystem::exists(path, failure))
        throw NetworkError("The model " + in_quotes(path) + " does not exist.");
    const bool is_file = std::filesystem::is_regular_file(path, failure);
    const MappedFilePtr file(is_file ? g_mapped_file_new(path.c_str(), FALSE, nullptr) : nullptr);
    if (!file) throw NetworkError("The model " + in_quotes(path) + " cannot be read.");
    const gchar* contents = g_mapped_file_get_contents(file.get());
    const auto header =
        read_onnx_header({contents ? contents : "", contents ? g_mapped_file_get_length(file.get()) : 0});
    if (!header) throw NetworkError("The model " + in_quotes(path) + " is no ONNX model.");
    if (header->has_other_files)
        throw NetworkError("The model " + in_quotes(path) + " keeps weights in other files, which is not supported.");
    return *header;
}

TensorType type_of(const OnnxValue& input, const std::string& path)
{
    switch (input.type) {
    case onnx_type::kFloat:
        return TensorType::float32;
    case onnx_type::kUint8:
        return TensorType::uint8;
    case onnx_type::kInt32:
        return TensorType::int32;
    default:
        throw NetworkError("The model " + in_quotes(path) + " takes numbers of ONNX type " +
                           std::to_string(input.type) + "; only FLOAT, UINT8 and INT32 are supported.");
    }
}

/// An open batch is one picture; anything else that is open has no size that frames could be made to.
Tensors input_of(const OnnxHeader& header, const std::string& path)
{
    if (header.inputs.size() != 1)
        throw NetworkError("The model " + in_quotes(path) + " has " + std::to_string(header.inputs.size()) +
                           " inputs; only one is supported.");
    const OnnxValue& input = header.inputs.front();
    Shape shape = input.shape;
    if (!shape.empty() && shape.front() == 0) shape.front() = 1;
    const Tensors tensors{type_of(input, path), {shape}};
    const bool is_open = std::find(shape.begin(), shape.end(), 0) != shape.end();
    if (shape.empty() || is_open || size_of(tensors.type, shape) == 0)
        throw NetworkError("The input " + text_of({input.shape}) + " of the model " + in_quotes(path) +
                           " has no fixed size.");
    return tensors;
}

int depth_of(TensorType type)
{
    if (type == TensorType::uint8) return CV_8U;
    return type == TensorType::int32 ? CV_32S : CV_32F;
}

/// OpenCV has no tensors of one dimension: where the numbers are as many, the file's shape is right.
Shape shape_of(const cv::Mat& output, const OnnxValue* declared)
{
    const Shape own(output.size.p, output.size.p + output.dims);
    if (!declared || declared->shape.empty()) return own;
    std::size_t count = 1;
    for (const int number : declared->shape)
        count *= static_cast<std::size_t>(number);
    return count == output.total() ? declared->shape : own;
}

} // namespace

struct Network::Engine {
    cv::dnn::Net net;
    std::vector<std::string> names; ///< of the outputs
    std::vector<cv::Mat> blobs;     ///< of the last run
};

namespace {

/// In the order of the file; where OpenCV has other names, in its own.
std::vector<std::string> output_names(const cv::dnn::Net& net, const OnnxHeader& header)
{
    const std::vector<cv::String> known = net.getUnconnectedOutLayersNames();
    std::vector<std::string> names;
    for (const OnnxValue& output : header.outputs)
        if (std::find(known.begin(), known.end(), output.name) != known.end()) names.push_back(output.name);
    if (names.size() == header.outputs.size()) return names;
    return {known.begin(), known.end()};
}

} // namespace

Network::Network(const std::string& path) : path_(path), engine_(std::make_unique<Engine>())
{
    const OnnxHeader header = read_header(path);
    input_ = input_of(header, path);
    try {
        engine_->net = cv::dnn::readNetFromONNX(path);
        engine_->net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
        engine_->net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
        engine_->names = output_names(engine_->net, header);
    } catch (const std::exception& error) {
        throw NetworkError("The model " + in_quotes(path) + " cannot be loaded: " + error.what());
    }
    const std::vector<uint8_t> zeros(size_of(input_.type, input_.shapes.front()));
    forward(zeros.data());
    outputs_.type = TensorType::float32;
    for (std::size_t i = 0; i < engine_->blobs.size(); ++i) {
        const bool is_named = i < header.outputs.size() && engine_->names[i] == header.outputs[i].name;
        outputs_.shapes.push_back(shape_of(engine_->blobs[i], is_named ? &header.outputs[i] : nullptr));
        if (size_of(TensorType::float32, outputs_.shapes.back()) == 0)
            throw NetworkError("The output " + text_of({outputs_.shapes.back()}) + " of the model " + in_quotes(path) +
                               " is too large or empty.");
    }
}

Network::~Network() = default;

void Network::forward(const uint8_t* numbers)
{
    try {
        const cv::Mat given(input_.shapes.front(), depth_of(input_.type), const_cast<uint8_t*>(numbers));
        cv::Mat floats;
        given.convertTo(floats, CV_32F); // a copy in any case: the network keeps what it is given
        engine_->net.setInput(floats);
        engine_->blobs.clear();
        engine_->net.forward(engine_->blobs, engine_->names);
        for (cv::Mat& blob : engine_->blobs)
            if (blob.type() != CV_32FC1 || !blob.isContinuous()) {
                cv::Mat plain;
                blob.convertTo(plain, CV_32F);
                blob = plain;
            }
    } catch (const std::exception& error) {
        throw NetworkError("The model " + in_quotes(path_) + " cannot be run: " + error.what());
    }
    if (engine_->blobs.empty()) throw NetworkError("The model " + in_quotes(path_) + " has no output.");
}

void Network::run(const uint8_t* numbers)
{
    forward(numbers);
    for (std::size_t i = 0; i < outputs_.shapes.size(); ++i) {
        const std::size_t wanted = size_of(TensorType::float32, outputs_.shapes[i]) / sizeof(float);
        if (i >= engine_->blobs.size() || engine_->blobs[i].total() != wanted)
            throw NetworkError("An output of the model " + in_quotes(path_) + " has changed its size.");
    }
}

const float* Network::output(std::size_t index) const
{
    return engine_->blobs[index].ptr<float>();
}

} // namespace velstream::software
