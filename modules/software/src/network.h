// A model and what runs it.
#pragma once

#include "tensor_caps.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace velstream::software {

/// Says in a sentence for the user what is wrong with a model.
class NetworkError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// An ONNX model run by OpenCV on the CPU. For one thread at a time.
class Network {
public:
    /// Loads the file and runs it once, on zeros: so its outputs are known, and what it cannot do comes out here.
    /// @throw NetworkError
    explicit Network(const std::string& path);
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    const Tensors& input() const { return input_; }     ///< one tensor
    const Tensors& outputs() const { return outputs_; } ///< FLOAT32, in the order of the file

    /// @param numbers  of the input, size_of() bytes
    /// @throw NetworkError
    void run(const uint8_t* numbers);
    /// The numbers of one output of the last run; valid until the next one.
    const float* output(std::size_t index) const;

private:
    struct Engine;

    void forward(const uint8_t* numbers);

    std::string path_;
    Tensors input_;
    Tensors outputs_;
    std::unique_ptr<Engine> engine_;
};

} // namespace velstream::software
