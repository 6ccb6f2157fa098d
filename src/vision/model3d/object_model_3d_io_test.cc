#include "vision/model3d/object_model_3d_io.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

#include "vision/model3d/object_model_3d.h"

namespace vision {
namespace {

namespace fs = std::filesystem;

class PlyFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("model3d_io_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const char* name) const { return (dir_ / name).string(); }
  void WriteBytes(const std::string& path, const std::string& bytes) const {
    std::ofstream(path, std::ios::binary) << bytes;
  }
  static std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  fs::path dir_;
};

template <class T>
void Put(std::string* s, T v) {
  char b[sizeof(T)];
  std::memcpy(b, &v, sizeof(T));
  s->append(b, sizeof(T));
}

HTuple Param(const HTuple& om, const char* name) {
  HTuple v;
  get_object_model_3d_params(om, name, &v);
  return v;
}

// Two coloured points and one triangle, the form the tools write.
HTuple ColouredTriangle() {
  HTuple om;
  gen_object_model_3d_from_points(HTuple{0.5, -1.25, 0.0}, HTuple{0.0, 2.0, 1.0},
                                  HTuple{-0.001, 0.25, 3.0}, &om);
  // 300 and -4 are clamped to a byte; 12.6 rounds.
  set_object_model_3d_attrib_mod(om, HTuple{"&coord_r", "&coord_g", "&coord_b"}, "points",
                                 HTuple{255, 0, 300, 1, 2, 3, 12.6, -4.0, 128});
  ObjectModel3DCast(om, "test")->triangles = {{0, 1, 2}};
  return om;
}

TEST_F(PlyFiles, BinaryLayoutByteForByte) {
  const std::string path = Path("tri.ply");
  write_object_model_3d(ColouredTriangle(), "ply", path.c_str(), HTuple(), HTuple());
  std::string want =
      "ply\nformat binary_little_endian 1.0\nelement vertex 3\n"
      "property float x\nproperty float y\nproperty float z\n"
      "property uchar red\nproperty uchar green\nproperty uchar blue\n"
      "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
  const float xyz[3][3] = {{0.5f, 0.0f, -0.001f}, {-1.25f, 2.0f, 0.25f}, {0.0f, 1.0f, 3.0f}};
  const uint8_t rgb[3][3] = {{255, 1, 13}, {0, 2, 0}, {255, 3, 128}};
  for (int i = 0; i < 3; ++i) {
    for (float v : xyz[i]) Put(&want, v);
    for (uint8_t v : rgb[i]) Put(&want, v);
  }
  Put(&want, uint8_t(3));
  for (int32_t v : {0, 1, 2}) Put(&want, v);
  EXPECT_EQ(ReadBytes(path), want);

  // Reading it back and writing again gives the same bytes.
  HTuple back, status;
  read_object_model_3d(path.c_str(), "m", HTuple(), HTuple(), &back, &status);
  EXPECT_EQ(Param(back, "num_points"), HTuple(3));
  EXPECT_EQ(Param(back, "triangles"), (HTuple{0, 1, 2}));
  EXPECT_EQ(Param(back, "&coord_b"), (HTuple{13.0, 0.0, 128.0}));
  const std::string again = Path("again.ply");
  write_object_model_3d(back, "ply", again.c_str(), HTuple(), HTuple());
  EXPECT_EQ(ReadBytes(again), want);
}

TEST_F(PlyFiles, AsciiWithNormalsQuadsAndScale) {
  const std::string path = Path("quad.ply");
  WriteBytes(path,
             "ply\r\nformat ascii 1.0\r\ncomment made by hand\r\n"
             "element vertex 4\r\nproperty double x\r\nproperty double y\r\nproperty double z\r\n"
             "property float nx\r\nproperty float ny\r\nproperty float nz\r\n"
             "property float quality\r\n"
             "element face 1\r\nproperty list uchar uint vertex_index\r\nend_header\r\n"
             "0 0 0 0 0 1 0.5\r\n10 0 0 0 0 1 0.25\r\n10 10 0 0 0 1 1\r\n0 10 0 0 0 1 2\r\n"
             "4 0 1 2 3\r\n");
  HTuple om, status;
  read_object_model_3d(path.c_str(), "mm", HTuple(), HTuple(), &om, &status);
  const HTuple x = Param(om, "point_coord_x");
  ASSERT_EQ(x.Length(), 4);
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(x.D(i), i == 1 || i == 2 ? 0.01 : 0.0, 1e-9);
  EXPECT_EQ(Param(om, "has_point_normals"), HTuple("true"));
  EXPECT_EQ(Param(om, "triangles"), (HTuple{0, 1, 2, 0, 2, 3}));  // the quad as a fan
  EXPECT_EQ(Param(om, "&quality"), (HTuple{0.5, 0.25, 1.0, 2.0}));
}

TEST_F(PlyFiles, DamagedFilesAreRefused) {
  const std::string good = Path("good.ply");
  write_object_model_3d(ColouredTriangle(), "ply", good.c_str(), HTuple(), HTuple());
  const std::string bytes = ReadBytes(good);
  const std::string path = Path("bad.ply");
  HTuple om, status;
  // Every proper prefix of a valid file is refused, never read past its end.
  for (size_t n = 0; n < bytes.size(); ++n) {
    WriteBytes(path, bytes.substr(0, n));
    EXPECT_THROW(read_object_model_3d(path.c_str(), "m", HTuple(), HTuple(), &om, &status),
                 HException)
        << n;
  }
  const std::string hdr = "ply\nformat binary_little_endian 1.0\nelement vertex 1\n"
                          "property float x\nproperty float y\nproperty float z\n";
  std::string one_vertex;
  for (float v : {1.f, 2.f, 3.f}) Put(&one_vertex, v);
  std::string bad_index = hdr + "element face 1\nproperty list uchar int vertex_indices\nend_header\n" +
                          one_vertex;
  Put(&bad_index, uint8_t(3));
  for (int32_t v : {0, 0, 1}) Put(&bad_index, v);
  const std::string cases[] = {
      "plx\nformat ascii 1.0\nelement vertex 0\nproperty float x\nend_header\n",
      "ply\nformat binary_big_endian 1.0\nelement vertex 1\nproperty float x\nend_header\n",
      "ply\nelement vertex 1\nproperty float x\nend_header\n1\n",  // no format
      hdr,                                                             // no end_header
      "ply\nformat ascii 1.0\nelement vertex 1\nproperty float y\nproperty float z\nend_header\n1 2\n",
      "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
      "property float z\nend_header\n1 2 zz\n",
      "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
      "property float z\nend_header\n1 2 3 4\n",  // trailing values
      hdr + "property quaternion q\nend_header\n",
      // A count far beyond the file's size must not allocate or read.
      "ply\nformat binary_little_endian 1.0\nelement vertex 4000000000\nproperty float x\n"
      "property float y\nproperty float z\nend_header\n" + one_vertex,
      bad_index,
      // A face list longer than what is left.
      hdr + "element face 1\nproperty list uint int vertex_indices\nend_header\n" + one_vertex +
          std::string("\xff\xff\xff\x7f", 4),
  };
  for (const std::string& c : cases) {
    WriteBytes(path, c);
    EXPECT_THROW(read_object_model_3d(path.c_str(), "m", HTuple(), HTuple(), &om, &status),
                 HException)
        << c;
  }
  EXPECT_THROW(read_object_model_3d(Path("missing.ply").c_str(), "m", HTuple(), HTuple(), &om, &status),
               HException);
  EXPECT_THROW(write_object_model_3d(ColouredTriangle(), "ply", Path("no/such/dir.ply").c_str(),
                                     HTuple(), HTuple()),
               HException);
}

}  // namespace
}  // namespace vision
