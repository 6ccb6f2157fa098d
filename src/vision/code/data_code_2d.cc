#include "vision/code/data_code_2d.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <set>

#include "vision/code/code_image.h"
#include "vision/code/code_reader.h"

namespace vision {
namespace {

using code::Symbology;

class DataCode2dModel : public HandleBase {
 public:
  const char* TypeName() const override { return "datacode_2d"; }

  Symbology symbology = Symbology::QR;
  std::string symbol_type;
  std::string default_parameters = "standard_recognition";
  std::string polarity = "dark_on_light";
  std::string mirrored = "any";
  Hlong module_size_min = 2, module_size_max = 100;
  Hlong contrast_min = 20;
  double timeout = -1;
  Hlong stop_after_result_num = 1;
  int trained_variant = -1;

  // What the last full training pass found, and on which image. Reading the
  // same image right after training (what the code reading service always
  // does) would start with the preparation training just recorded and repeat
  // exactly that decode, so the reading pass takes these symbols instead.
  // Any parameter change forgets them.
  struct TrainedRead {
    std::vector<cv::Mat> planes;  // shared with the image, which is immutable
    Region domain;
    Hlong stop_after = 0;
    std::vector<code::Found> found;
  };
  std::optional<TrainedRead> trained_read;

  bool IsTrainedImage(const Image& img, Hlong stop_after) const {
    if (!trained_read || trained_read->stop_after != stop_after || trained_read->planes.size() != img.planes.size() ||
        !(trained_read->domain == img.domain))
      return false;
    for (size_t k = 0; k < img.planes.size(); ++k) {
      const cv::Mat &a = trained_read->planes[k], &b = img.planes[k];
      if (a.data != b.data || a.size() != b.size() || a.step != b.step || a.type() != b.type()) return false;
    }
    return true;
  }

  void ApplyDefaults(const std::string& level, const char* op) {
    if (level == "standard_recognition") {
      polarity = "dark_on_light";
      contrast_min = 20;
      module_size_min = 2;
    } else if (level == "enhanced_recognition" || level == "maximum_recognition") {
      polarity = "any";
      contrast_min = level == "maximum_recognition" ? 1 : 10;
      module_size_min = 1;
    } else {
      throw HException(op, "Wrong value of 'default_parameters': " + level, kErrWrongParamValue);
    }
    default_parameters = level;
    mirrored = "any";
    module_size_max = 100;
    trained_variant = -1;
  }
};

const std::vector<std::string> kParams = {"default_parameters", "polarity", "mirrored", "module_size_min",
                                          "module_size_max", "contrast_min", "timeout", "stop_after_result_num"};

std::string StringParam(const HTuple& v, Hlong i, const char* op, const std::string& name) {
  if (!v.IsString(i)) throw HException(op, "Wrong type of value for '" + name + "'", kErrWrongParamType);
  return v.S(i);
}

Hlong IntParam(const HTuple& v, Hlong i, const char* op, const std::string& name, Hlong lo, Hlong hi) {
  if (!v.IsNumber(i)) throw HException(op, "Wrong type of value for '" + name + "'", kErrWrongParamType);
  Hlong x = v.L(i);
  if (x < lo || x > hi) throw HException(op, "Wrong value of '" + name + "'", kErrWrongParamValue);
  return x;
}

void SetParams(DataCode2dModel* m, const HTuple& names, const HTuple& values, const char* op) {
  m->trained_read.reset();
  if (names.Length() != values.Length())
    throw HException(op, "Number of parameter names and values differ", kErrWrongParamCount);
  // default_parameters resets the others, so it is applied first.
  for (Hlong i = 0; i < names.Length(); ++i)
    if (names.IsString(i) && names.S(i) == "default_parameters")
      m->ApplyDefaults(StringParam(values, i, op, "default_parameters"), op);
  for (Hlong i = 0; i < names.Length(); ++i) {
    if (!names.IsString(i)) throw HException(op, "Wrong type of parameter name", kErrWrongParamType);
    const std::string& n = names.S(i);
    if (n == "default_parameters") continue;
    if (n == "polarity") {
      auto s = StringParam(values, i, op, n);
      if (s != "dark_on_light" && s != "light_on_dark" && s != "any")
        throw HException(op, "Wrong value of 'polarity': " + s, kErrWrongParamValue);
      m->polarity = s;
    } else if (n == "mirrored") {
      auto s = StringParam(values, i, op, n);
      if (s != "yes" && s != "no" && s != "any") throw HException(op, "Wrong value of 'mirrored': " + s, kErrWrongParamValue);
      m->mirrored = s;
    } else if (n == "module_size_min") {
      m->module_size_min = IntParam(values, i, op, n, 1, 100);
    } else if (n == "module_size_max") {
      m->module_size_max = IntParam(values, i, op, n, 1, 1000);
    } else if (n == "contrast_min") {
      m->contrast_min = IntParam(values, i, op, n, 1, 255);
    } else if (n == "timeout") {
      if (!values.IsNumber(i)) throw HException(op, "Wrong type of value for 'timeout'", kErrWrongParamType);
      m->timeout = values.D(i);
    } else if (n == "stop_after_result_num") {
      m->stop_after_result_num = IntParam(values, i, op, n, 0, 1 << 20);
    } else {
      throw HException(op, "Unknown parameter name: " + n, kErrWrongParamValue);
    }
  }
  if (m->module_size_min > m->module_size_max)
    throw HException(op, "module_size_min is larger than module_size_max", kErrWrongParamValue);
}

}  // namespace

void create_data_code_2d_model(const HTuple& symbol_type, const HTuple& gen_param_names,
                               const HTuple& gen_param_values, HTuple* data_code_handle) {
  const char* op = "create_data_code_2d_model";
  if (symbol_type.Length() != 1 || !symbol_type.IsString(0))
    throw HException(op, "Wrong symbol type", kErrWrongParamType);
  auto m = std::make_shared<DataCode2dModel>();
  const std::string& t = symbol_type.S(0);
  if (t == "Data Matrix ECC 200") m->symbology = Symbology::DataMatrix;
  else if (t == "QR Code") m->symbology = Symbology::QR;
  else if (t == "Micro QR Code") m->symbology = Symbology::MicroQR;
  else throw HException(op, "Unsupported symbol type: " + t, kErrWrongParamValue);
  m->symbol_type = t;
  SetParams(m.get(), gen_param_names, gen_param_values, op);
  *data_code_handle = HTuple(HHandle(m));
}

void set_data_code_2d_param(const HTuple& data_code_handle, const HTuple& gen_param_names,
                            const HTuple& gen_param_values) {
  const char* op = "set_data_code_2d_param";
  SetParams(HandleCast<DataCode2dModel>(data_code_handle, op), gen_param_names, gen_param_values, op);
}

void get_data_code_2d_param(const HTuple& data_code_handle, const HTuple& gen_param_names,
                            HTuple* gen_param_values) {
  const char* op = "get_data_code_2d_param";
  auto* m = HandleCast<DataCode2dModel>(data_code_handle, op);
  HTuple out;
  for (Hlong i = 0; i < gen_param_names.Length(); ++i) {
    if (!gen_param_names.IsString(i)) throw HException(op, "Wrong type of parameter name", kErrWrongParamType);
    const std::string& n = gen_param_names.S(i);
    if (n == "default_parameters") out.Append(HTuple(m->default_parameters));
    else if (n == "symbol_type") out.Append(HTuple(m->symbol_type));
    else if (n == "polarity") out.Append(HTuple(m->polarity));
    else if (n == "mirrored") out.Append(HTuple(m->mirrored));
    else if (n == "module_size_min") out.Append(HTuple(m->module_size_min));
    else if (n == "module_size_max") out.Append(HTuple(m->module_size_max));
    else if (n == "contrast_min") out.Append(HTuple(m->contrast_min));
    else if (n == "timeout") out.Append(HTuple(m->timeout));
    else if (n == "stop_after_result_num") out.Append(HTuple(m->stop_after_result_num));
    else if (n == "trained_preprocessing")
      out.Append(HTuple(m->trained_variant >= 0 ? code::Variants(m->symbology)[m->trained_variant].Name() : std::string()));
    else throw HException(op, "Unknown parameter name: " + n, kErrWrongParamValue);
  }
  *gen_param_values = out;
}

void query_data_code_2d_params(const HTuple& data_code_handle, const HTuple& query_name, HTuple* gen_param_names) {
  const char* op = "query_data_code_2d_params";
  HandleCast<DataCode2dModel>(data_code_handle, op);
  if (query_name.Length() != 1 || !query_name.IsString(0)) throw HException(op, "Wrong query name", kErrWrongParamType);
  const std::string& q = query_name.S(0);
  if (q != "get_model_params" && q != "set_model_params")
    throw HException(op, "Unknown query name: " + q, kErrWrongParamValue);
  std::vector<std::string> names = kParams;
  if (q == "get_model_params") {
    names.push_back("symbol_type");
    names.push_back("trained_preprocessing");
  }
  *gen_param_names = HTuple::Strings(names);
}

void find_data_code_2d(const HObject& image, HObject* symbol_xlds, const HTuple& data_code_handle,
                       const HTuple& gen_param_names, const HTuple& gen_param_values,
                       HTuple* result_handles, HTuple* decoded_data_strings) {
  const char* op = "find_data_code_2d";
  auto* m = HandleCast<DataCode2dModel>(data_code_handle, op);
  if (gen_param_names.Length() != gen_param_values.Length())
    throw HException(op, "Number of parameter names and values differ", kErrWrongParamCount);
  std::set<std::string> train;
  Hlong stop_after = m->stop_after_result_num;
  for (Hlong i = 0; i < gen_param_names.Length(); ++i) {
    if (!gen_param_names.IsString(i)) throw HException(op, "Wrong type of parameter name", kErrWrongParamType);
    const std::string& n = gen_param_names.S(i);
    if (n == "train") {
      auto v = StringParam(gen_param_values, i, op, n);
      if (v != "all" && v != "polarity" && v != "mirrored" && v != "contrast" && v != "image_preparation")
        throw HException(op, "Wrong value of 'train': " + v, kErrWrongParamValue);
      train.insert(v);
    } else if (n == "stop_after_result_num") {
      stop_after = IntParam(gen_param_values, i, op, n, 0, 1 << 20);
    } else {
      throw HException(op, "Unknown parameter name: " + n, kErrWrongParamValue);
    }
  }
  cv::Point offset;
  cv::Mat gray = code::GrayView(image, op, &offset);
  const Image& img = image.ImageAt(0, op);

  code::ReadRequest req;
  req.symbology = m->symbology;
  req.max_results = int(stop_after);
  req.timeout_ms = m->timeout > 0 ? m->timeout : (m->default_parameters == "standard_recognition" ? 2000 : 5000);
  const bool training = !train.empty();
  auto trains = [&](const char* what) { return train.count("all") || train.count(what); };
  if (!training) {
    req.first_variant = m->trained_variant;
    req.polarity = m->polarity == "dark_on_light"   ? code::Polarity::DarkOnLight
                   : m->polarity == "light_on_dark" ? code::Polarity::LightOnDark
                                                    : code::Polarity::Any;
    req.mirror = m->mirrored == "yes" ? code::Mirror::Yes : m->mirrored == "no" ? code::Mirror::No : code::Mirror::Any;
    // Modules of six pixels and more are resolved without upscaling.
    req.allow_upscale = m->module_size_min < 6;
  }
  // Without upscaling allowed the reading pass could not repeat an upscaled
  // training decode, so the trained symbols only stand in when it is.
  std::vector<code::Found> found = !training && req.allow_upscale && m->IsTrainedImage(img, stop_after)
                                       ? m->trained_read->found
                                       : code::ReadCodes(gray, req);
  if (!training) {
    // Symbols fainter than the model accepts are not reported.
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const code::Found& f) { return f.contrast < double(m->contrast_min); }),
                found.end());
  } else if (!found.empty()) {
    const code::Found& f = found.front();
    if (trains("polarity")) m->polarity = f.inverted ? "light_on_dark" : "dark_on_light";
    if (trains("mirrored")) m->mirrored = f.mirrored ? "yes" : "no";
    if (trains("contrast")) m->contrast_min = std::clamp<Hlong>(Hlong(f.contrast * 0.7), 1, m->contrast_min);
    if (trains("image_preparation")) m->trained_variant = f.variant;
  }
  if (training) {
    m->trained_read.reset();
    if (train.count("all") && !found.empty())
      m->trained_read = DataCode2dModel::TrainedRead{img.planes, img.domain, stop_after, found};
  }

  HObject xlds;
  HTuple handles, strings;
  for (size_t i = 0; i < found.size(); ++i) {
    xlds.Push(code::QuadRegion(found[i].corners, offset, img.width, img.height));
    handles.Append(HValue(Hlong(i)));
    strings.Append(HValue(found[i].text));
  }
  if (symbol_xlds) *symbol_xlds = xlds;
  if (result_handles) *result_handles = handles;
  if (decoded_data_strings) *decoded_data_strings = strings;
}

void clear_data_code_2d_model(const HTuple& data_code_handle) {
  HandleCast<DataCode2dModel>(data_code_handle, "clear_data_code_2d_model")->Clear();
}

}  // namespace vision
