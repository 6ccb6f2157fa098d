#include "vision/code/data_code_2d.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <set>

#include "vision/code/code_image.h"
#include "vision/code/code_reader.h"
#include "vision/core/param_table.h"

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
      ThrowParamValue(op, "'default_parameters'", "'" + level + "'");
    }
    default_parameters = level;
    mirrored = "any";
    module_size_max = 100;
    trained_variant = -1;
  }
};

using Table = ParamTable<DataCode2dModel>;

// Every generic parameter of a data-code model, in the order the query
// operator lists them; "default_parameters" resets the others, so it is
// applied before them.
const Table kParams({
    {"default_parameters",
     [](DataCode2dModel& m, const ParamValue& v) {
       m.ApplyDefaults(v.StringIn({"standard_recognition", "enhanced_recognition", "maximum_recognition"}), v.Op());
     },
     [](const DataCode2dModel& m) { return HTuple(m.default_parameters); }, Table::kFirst},
    {"polarity",
     [](DataCode2dModel& m, const ParamValue& v) { m.polarity = v.StringIn({"dark_on_light", "light_on_dark", "any"}); },
     [](const DataCode2dModel& m) { return HTuple(m.polarity); }},
    {"mirrored", [](DataCode2dModel& m, const ParamValue& v) { m.mirrored = v.StringIn({"yes", "no", "any"}); },
     [](const DataCode2dModel& m) { return HTuple(m.mirrored); }},
    {"module_size_min", [](DataCode2dModel& m, const ParamValue& v) { m.module_size_min = v.IntIn(1, 100); },
     [](const DataCode2dModel& m) { return HTuple(m.module_size_min); }},
    {"module_size_max", [](DataCode2dModel& m, const ParamValue& v) { m.module_size_max = v.IntIn(1, 1000); },
     [](const DataCode2dModel& m) { return HTuple(m.module_size_max); }},
    {"contrast_min", [](DataCode2dModel& m, const ParamValue& v) { m.contrast_min = v.IntIn(1, 255); },
     [](const DataCode2dModel& m) { return HTuple(m.contrast_min); }},
    {"timeout", [](DataCode2dModel& m, const ParamValue& v) { m.timeout = v.Real(); },
     [](const DataCode2dModel& m) { return HTuple(m.timeout); }},
    {"stop_after_result_num",
     [](DataCode2dModel& m, const ParamValue& v) { m.stop_after_result_num = v.IntIn(0, 1 << 20); },
     [](const DataCode2dModel& m) { return HTuple(m.stop_after_result_num); }},
    {"symbol_type", nullptr, [](const DataCode2dModel& m) { return HTuple(m.symbol_type); }},
    {"trained_preprocessing", nullptr,
     [](const DataCode2dModel& m) {
       return HTuple(m.trained_variant >= 0 ? code::Variants(m.symbology)[size_t(m.trained_variant)].Name()
                                            : std::string());
     }},
});

void SetParams(DataCode2dModel* m, const HTuple& names, const HTuple& values, const char* op) {
  m->trained_read.reset();
  kParams.Set(*m, names, values, op);
  if (m->module_size_min > m->module_size_max)
    ThrowParamValue(op, "'module_size_min'", "larger than 'module_size_max'");
}

}  // namespace

void create_data_code_2d_model(const HTuple& symbol_type, const HTuple& gen_param_names,
                               const HTuple& gen_param_values, HTuple* data_code_handle) {
  const char* op = "create_data_code_2d_model";
  auto m = std::make_shared<DataCode2dModel>();
  const std::string& t =
      ParamStringIn(symbol_type, op, "SymbolType", {"Data Matrix ECC 200", "QR Code", "Micro QR Code"});
  m->symbology = t == "Data Matrix ECC 200" ? Symbology::DataMatrix
                 : t == "QR Code"           ? Symbology::QR
                                            : Symbology::MicroQR;
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
  *gen_param_values = kParams.Get(*HandleCast<DataCode2dModel>(data_code_handle, op), gen_param_names, op);
}

void query_data_code_2d_params(const HTuple& data_code_handle, const HTuple& query_name, HTuple* gen_param_names) {
  const char* op = "query_data_code_2d_params";
  HandleCast<DataCode2dModel>(data_code_handle, op);
  const std::string& q = ParamStringIn(query_name, op, "QueryName", {"get_model_params", "set_model_params"});
  *gen_param_names = kParams.Names(q == "get_model_params" ? Table::kGettable : Table::kSettable);
}

void find_data_code_2d(const HObject& image, HObject* symbol_xlds, const HTuple& data_code_handle,
                       const HTuple& gen_param_names, const HTuple& gen_param_values,
                       HTuple* result_handles, HTuple* decoded_data_strings) {
  const char* op = "find_data_code_2d";
  auto* m = HandleCast<DataCode2dModel>(data_code_handle, op);
  if (gen_param_names.Length() != gen_param_values.Length()) ThrowParamCount(op, "GenParamValue");
  std::set<std::string> train;
  Hlong stop_after = m->stop_after_result_num;
  for (Hlong i = 0; i < gen_param_names.Length(); ++i) {
    const std::string& n =
        ParamStringIn(gen_param_names, op, "GenParamName", {"train", "stop_after_result_num"}, i);
    const ParamValue v(gen_param_values, i, op, n);
    if (n == "train")
      train.insert(v.StringIn({"all", "polarity", "mirrored", "contrast", "image_preparation"}));
    else
      stop_after = v.IntIn(0, 1 << 20);
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
