#include "vision/ocr/mlp.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace vision::ocr_detail {

// A correctly rounded square root, also four or eight at a time. Eigen's own
// vectorised sqrt starts from the processor's reciprocal-square-root estimate,
// which differs between processors, so the same training would write
// different files on two machines.
struct ExactSqrt {
  float operator()(float v) const { return std::sqrt(v); }
#if defined(__SSE2__)
  __m128 packetOp(__m128 p) const { return _mm_sqrt_ps(p); }
#endif
#if defined(__AVX__)
  __m256 packetOp(__m256 p) const { return _mm256_sqrt_ps(p); }
#endif
#if defined(__AVX512F__)
  __m512 packetOp(__m512 p) const { return _mm512_sqrt_ps(p); }
#endif
};

}  // namespace vision::ocr_detail

#if defined(__SSE2__)
template <>
struct Eigen::internal::functor_traits<vision::ocr_detail::ExactSqrt> {
  enum { Cost = 5, PacketAccess = true };
};
#endif

namespace vision::ocr_detail {

void Mlp::Init(int in, int hidden, int out, uint32_t seed) {
  n_in = in;
  n_hidden = hidden;
  n_out = out;
  std::mt19937 rng(seed);
  auto fill = [&](MatF& m, int rows, int cols) {
    // Glorot-uniform keeps tanh units out of saturation at the start.
    const float a = std::sqrt(6.f / float(rows + cols));
    std::uniform_real_distribution<float> d(-a, a);
    m.resize(rows, cols);
    for (int i = 0; i < m.size(); ++i) m.data()[i] = d(rng);
  };
  fill(w1, hidden, in);
  fill(w2, out, hidden);
  b1 = VecF::Zero(hidden);
  b2 = VecF::Zero(out);
  mean = VecF::Zero(in);
  inv_std = VecF::Ones(in);
}

static void SoftmaxRows(MatF* z) {
  for (int r = 0; r < z->rows(); ++r) {
    auto row = z->row(r);
    const float mx = row.maxCoeff();
    row = (row.array() - mx).exp();
    row /= row.sum();
  }
}

MatF Mlp::ForwardBatch(const MatF& x) const {
  MatF xn = (x.rowwise() - mean.transpose()).array().rowwise() * inv_std.transpose().array();
  MatF h = ((xn * w1.transpose()).rowwise() + b1.transpose()).array().tanh();
  MatF z = (h * w2.transpose()).rowwise() + b2.transpose();
  SoftmaxRows(&z);
  return z;
}

VecF Mlp::Forward(const float* x) const {
  Eigen::Map<const VecF> xv(x, n_in);
  VecF xn = (xv - mean).cwiseProduct(inv_std);
  VecF h = (w1 * xn + b1).array().tanh();
  VecF z = w2 * h + b2;
  const float mx = z.maxCoeff();
  z = (z.array() - mx).exp();
  return z / z.sum();
}

namespace {
// Adam state for one parameter block.
struct Adam {
  MatF m, v;
  void Init(long rows, long cols) {
    m = MatF::Zero(rows, cols);
    v = MatF::Zero(rows, cols);
  }
  template <class P>
  void Step(P& param, const MatF& grad, float lr, int t) {
    constexpr float b1 = 0.9f, b2 = 0.999f, eps = 1e-8f;
    m = b1 * m + (1 - b1) * grad;
    v = b2 * v + (1 - b2) * grad.cwiseProduct(grad);
    const float c1 = 1 - std::pow(b1, float(t)), c2 = 1 - std::pow(b2, float(t));
    MatF upd = (m.array() / c1) / ((v.array() / c2).unaryExpr(ExactSqrt()) + eps);
    Eigen::Map<MatF> pm(param.data(), m.rows(), m.cols());
    pm -= lr * upd;
  }
};
}  // namespace

std::vector<double> Train(Mlp* net, const MatF& x, const std::vector<int>& y,
                          const TrainParams& p) {
  const long n = x.rows();
  std::vector<double> log;
  if (n == 0) return log;
  if (p.normalise) {
    net->mean = x.colwise().mean().transpose();
    VecF var = ((x.rowwise() - net->mean.transpose()).array().square().colwise().sum() /
                float(n)).transpose();
    net->inv_std = 1.f / (var.array() + 1e-4f).unaryExpr(ExactSqrt());
  }
  Adam aw1, ab1, aw2, ab2;
  aw1.Init(net->n_hidden, net->n_in);
  ab1.Init(net->n_hidden, 1);
  aw2.Init(net->n_out, net->n_hidden);
  ab2.Init(net->n_out, 1);
  std::mt19937 rng(p.seed ^ 0x9e3779b9u);
  std::vector<long> order(n);
  std::iota(order.begin(), order.end(), 0);
  MatF xb, xn, h, z, dz, dh;
  int t = 0;
  for (int epoch = 0; epoch < p.epochs; ++epoch) {
    std::shuffle(order.begin(), order.end(), rng);
    // Cosine decay lets the last passes settle without a tuned schedule.
    const float lr = p.learning_rate * 0.5f *
                     (1.f + std::cos(3.14159265f * float(epoch) / float(p.epochs)));
    double loss = 0;
    for (long s = 0; s < n; s += p.batch) {
      const long b = std::min<long>(p.batch, n - s);
      xb.resize(b, net->n_in);
      for (long i = 0; i < b; ++i) xb.row(i) = x.row(order[s + i]);
      xn = (xb.rowwise() - net->mean.transpose()).array().rowwise() *
           net->inv_std.transpose().array();
      h = ((xn * net->w1.transpose()).rowwise() + net->b1.transpose()).array().tanh();
      z = (h * net->w2.transpose()).rowwise() + net->b2.transpose();
      SoftmaxRows(&z);
      dz = z;
      for (long i = 0; i < b; ++i) {
        const int lbl = y[order[s + i]];
        if (lbl < 0) {
          // No class: the target spreads evenly over all of them.
          const float share = 1.f / float(net->n_out);
          for (long k = 0; k < net->n_out; ++k) {
            loss -= share * std::log(std::max(1e-12f, z(i, k)));
            dz(i, k) -= share;
          }
          continue;
        }
        loss -= std::log(std::max(1e-12f, z(i, lbl)));
        dz(i, lbl) -= 1.f;
      }
      dz /= float(b);
      MatF gw2 = dz.transpose() * h + p.weight_decay * net->w2;
      MatF gb2 = dz.colwise().sum().transpose();
      dh = (dz * net->w2).array() * (1.f - h.array().square());
      MatF gw1 = dh.transpose() * xn + p.weight_decay * net->w1;
      MatF gb1 = dh.colwise().sum().transpose();
      ++t;
      aw2.Step(net->w2, gw2, lr, t);
      ab2.Step(net->b2, gb2, lr, t);
      aw1.Step(net->w1, gw1, lr, t);
      ab1.Step(net->b1, gb1, lr, t);
    }
    log.push_back(loss / double(n));
    if (log.back() < p.error_tolerance) break;
  }
  return log;
}

}  // namespace vision::ocr_detail
