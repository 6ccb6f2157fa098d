#include "stereo/rig_description.h"

#include <cmath>
#include <sstream>

#include <nlohmann/json.hpp>

#include "vision/calib/camera_setup.h"
#include "vision/core/serialized_item.h"

namespace velmora {

namespace {

// Numbers of one list; integers stay integers (width, height, pose type).
bool ReadNumbers(const nlohmann::json& list, size_t want, const std::string& what, vision::HTuple* out,
                 std::string* error) {
  if (!list.is_array()) {
    *error = what + " is not a list";
    return false;
  }
  if (list.size() != want) {
    *error = what + " has " + std::to_string(list.size()) + " values, expected " + std::to_string(want);
    return false;
  }
  vision::HTuple t;
  for (size_t i = 0; i < list.size(); ++i) {
    const auto& v = list[i];
    if (v.is_number_integer()) {
      t.Append(vision::HTuple(static_cast<long long>(v.get<int64_t>())));
    } else if (v.is_number_float() && std::isfinite(v.get<double>())) {
      t.Append(vision::HTuple(v.get<double>()));
    } else {
      *error = what + " value " + std::to_string(i) + " is not a number";
      return false;
    }
  }
  *out = t;
  return true;
}

nlohmann::ordered_json Numbers(const vision::HTuple& t) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (vision::Hlong i = 0; i < t.Length(); ++i) {
    if (t.IsInt(i)) list.push_back(t.L(i));
    else list.push_back(t.D(i));
  }
  return list;
}

}  // namespace

std::optional<RigDescription> ParseRigJson(const std::string& text, std::string* error) {
  std::string ignored;
  std::string& why = error ? *error : ignored;
  nlohmann::json j;
  try {
    j = nlohmann::json::parse(text);
  } catch (const nlohmann::json::parse_error& e) {
    // The library's text starts with its own "[json.exception...]" tag.
    std::string what = e.what();
    const size_t tag = what.find("] ");
    why = "bad JSON: " + (tag == std::string::npos ? what : what.substr(tag + 2));
    return std::nullopt;
  }
  if (!j.is_object() || !j.contains("cameras")) {
    why = "no \"cameras\" list";
    return std::nullopt;
  }
  const auto& cams = j["cameras"];
  if (!cams.is_array()) {
    why = "\"cameras\" is not a list";
    return std::nullopt;
  }
  if (cams.size() != kRigCameraCount) {
    why = "the rig has " + std::to_string(cams.size()) + " cameras, expected " +
          std::to_string(kRigCameraCount);
    return std::nullopt;
  }
  RigDescription rig;
  for (size_t i = 0; i < cams.size(); ++i) {
    const std::string name = "camera " + std::to_string(i);
    const auto& c = cams[i];
    if (!c.is_object() || !c.contains("params") || !c.contains("pose")) {
      why = name + " needs \"params\" and \"pose\"";
      return std::nullopt;
    }
    RigCameraEntry e;
    if (!ReadNumbers(c["params"], 8, name + " params", &e.params, &why) ||
        !ReadNumbers(c["pose"], 7, name + " pose", &e.pose, &why))
      return std::nullopt;
    rig.cameras.push_back(std::move(e));
  }
  return rig;
}

std::string RigJson(const RigDescription& rig) {
  // One camera per line pair keeps the file readable and diffable.
  std::ostringstream out;
  out << "{\"cameras\": [\n";
  for (size_t i = 0; i < rig.cameras.size(); ++i) {
    out << "  {\"params\": " << Numbers(rig.cameras[i].params).dump() << ",\n"
        << "   \"pose\":   " << Numbers(rig.cameras[i].pose).dump() << "}"
        << (i + 1 < rig.cameras.size() ? "," : "") << "\n";
  }
  out << "]}\n";
  return out.str();
}

std::vector<uint8_t> SerializeRigModel(const RigDescription& rig) {
  vision::HTuple model, item;
  vision::create_camera_setup_model(vision::HTuple(static_cast<long long>(rig.cameras.size())), &model);
  for (size_t i = 0; i < rig.cameras.size(); ++i) {
    vision::set_camera_setup_cam_param(model, vision::HTuple(static_cast<long long>(i)),
                                       vision::HTuple(vision::kAreaScanDivision), rig.cameras[i].params,
                                       rig.cameras[i].pose);
  }
  vision::serialize_camera_setup_model(model, &item);
  std::vector<uint8_t> bytes = vision::SerializedItemCast(item, "serialize_camera_setup_model")->bytes;
  vision::clear_serialized_item(item);
  vision::clear_camera_setup_model(model);
  return bytes;
}

RigDescription DeserializeRigModel(const std::vector<uint8_t>& bytes) {
  const vision::HTuple item = vision::NewSerializedItem(bytes.data(), bytes.size());
  vision::HTuple model;
  try {
    vision::deserialize_camera_setup_model(item, &model);
  } catch (...) {
    vision::clear_serialized_item(item);
    throw;
  }
  vision::clear_serialized_item(item);
  RigDescription rig;
  try {
    vision::HTuple count;
    vision::get_camera_setup_param(model, vision::HTuple("general"), vision::HTuple("num_cameras"), &count);
    for (vision::Hlong i = 0; i < count.L(); ++i) {
      RigCameraEntry e;
      vision::get_camera_setup_param(model, vision::HTuple(static_cast<long long>(i)), vision::HTuple("params"), &e.params);
      vision::get_camera_setup_param(model, vision::HTuple(static_cast<long long>(i)), vision::HTuple("pose"), &e.pose);
      rig.cameras.push_back(std::move(e));
    }
  } catch (...) {
    vision::clear_camera_setup_model(model);
    throw;
  }
  vision::clear_camera_setup_model(model);
  return rig;
}

}  // namespace velmora
