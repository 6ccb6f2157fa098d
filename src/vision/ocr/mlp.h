#pragma once
// A one-hidden-layer perceptron (tanh hidden units, softmax output) with
// feature normalisation, trained by mini-batch Adam. Internal to vision_ocr.
#include <cstdint>
#include <vector>

#include <Eigen/Core>

namespace vision::ocr_detail {

using MatF = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using VecF = Eigen::VectorXf;

struct Mlp {
  int n_in = 0, n_hidden = 0, n_out = 0;
  VecF mean, inv_std;  // input normalisation (identity when not trained with it)
  MatF w1;             // n_hidden x n_in
  VecF b1;             // n_hidden
  MatF w2;             // n_out x n_hidden
  VecF b2;             // n_out

  void Init(int in, int hidden, int out, uint32_t seed);
  // Softmax probabilities of one feature vector.
  VecF Forward(const float* x) const;
  // Rows of `x` are samples.
  MatF ForwardBatch(const MatF& x) const;
};

struct TrainParams {
  int epochs = 30;
  int batch = 64;
  float learning_rate = 2e-3f;
  float weight_decay = 1e-5f;
  float error_tolerance = 0.f;  // stop when the mean error falls below it
  uint32_t seed = 42;
  bool normalise = true;
};

// Returns the mean cross-entropy per epoch. `x` rows are samples, `y` labels;
// a negative label is a sample of no class, trained toward equal outputs.
std::vector<double> Train(Mlp* net, const MatF& x, const std::vector<int>& y,
                          const TrainParams& p);

}  // namespace vision::ocr_detail
