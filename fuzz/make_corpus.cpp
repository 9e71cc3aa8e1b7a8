// Writes the seed corpora of the fuzz targets from the cases the unit tests use:
//   make_corpus <output directory> <robots directory>
// One sub-directory per target; each KRValue seed is checked to decode back to itself.

#include <sys/stat.h>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "krvalue_gen.h"

using KR::KRValue;

namespace {

std::string gOut;
int gWritten = 0;

void write(const std::string& target, const std::string& name, const std::string& bytes) {
  const std::string dir = gOut + "/" + target;
  mkdir(gOut.c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
  ++gWritten;
}

void writeValue(const std::string& target, const std::string& name, const KRValue& v,
                const std::string& prefix = "") {
  const std::string bytes = krfuzz::encodeValue(v);
  const std::string all = prefix + bytes;
  krfuzz::FuzzInput in(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  const KRValue back = krfuzz::makeValue(in);
  if (back.toString() != v.toString()) {
    std::cerr << "seed " << target << "/" << name << " decodes as " << back << ", not " << v
              << "\n";
    std::exit(1);
  }
  write(target, name, all);
}

std::string read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string edited(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  if (at == std::string::npos) {
    std::cerr << "the robot description has no '" << from << "'\n";
    std::exit(1);
  }
  return text.replace(at, from.size(), to);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: make_corpus <output directory> <robots directory>\n";
    return 2;
  }
  gOut = argv[1];
  const std::string robots = argv[2];

  // TrackInfos records.
  const KRValue pose{1.0f, -2.0f, 0.5f, 0.3f, 0.2f, 0.1f};
  const KRValue header{1, 500000, -1, 2, 3.5f, 0.25f, true};
  writeValue("trackinfos", "valid", KRValue{header, pose});
  writeValue("trackinfos", "default",
             KRValue{KRValue{0, 0, -1, 0, 0.0f, 0.0f, false}, KRValue{0, 0, 0, 0, 0, 0}});
  writeValue("trackinfos", "ints",
             KRValue{KRValue{7, 20, 4, 1, 2, 0, 1}, KRValue{1, 2, 3, 0, 0, 0}});
  writeValue("trackinfos", "ms-form",
             KRValue{KRValue{2.5f, 2500000.0f, -1, 0, 3.5f, 0.25f, true}, pose});
  writeValue("trackinfos", "short-header", KRValue{KRValue{1, 0, -1, 0, 1.0f, 0.1f}, pose});
  writeValue("trackinfos", "short-pose", KRValue{header, KRValue{1.0f, 2.0f, 3.0f}});
  writeValue("trackinfos", "three", KRValue{header, pose, pose});
  writeValue("trackinfos", "string-distance",
             KRValue{KRValue{1, 0, -1, 0, "far", 0.1f, true}, pose});

  // Tracker events, after one byte choosing how the motion service answers (0: well).
  const KRValue six{1.0f, 2.0f, 0.5f, 0.0f, 0.0f, 0.1f};
  const KRValue time{10, 500};
  const std::string good(1, '\0');
  const std::vector<std::pair<std::string, KRValue>> events = {
      {"world", KRValue{KRValue{3.0f, 5.0f, 0.5f, 0.1f, 0.2f, 0.3f}, time, 1}},
      {"world-threshold", KRValue{six, time, 0, 4.0f}},
      {"torso",
       KRValue{KRValue{1.0f, 0.5f, 0.2f, 0.0f, 0.0f, 0.1f}, six, KRValue{7, 250000}, 2, 0.05f}},
      {"two", KRValue{six, time}},
      {"torso-no-effector", KRValue{six, six, time}},
      {"time-of-three", KRValue{six, KRValue{1, 2, 3}, 0}},
      {"float-seconds", KRValue{six, KRValue{10.5f, 500}, 0}},
      {"string-threshold", KRValue{six, time, 0, "x"}},
      {"float-effector", KRValue{six, time, 1.5f}},
  };
  for (const auto& e : events) {
    writeValue("tracker_event", e.first, e.second, good);
  }
  writeValue("tracker_event", "motion-fails", events[0].second, std::string(1, '\1'));

  // Configuration pairs.
  writeValue("tracker_config", "threshold", KRValue{KRValue{"HEAD_THRESHOLD", 0.1f}});
  writeValue("tracker_config", "unknown-and-known",
             KRValue{KRValue{"FOO", 1}, KRValue{"HEAD_THRESHOLD", 0.2f}});
  writeValue("tracker_config", "int-switch", KRValue{KRValue{"LOG_HEAD_COMMAND", 1}});
  writeValue("tracker_config", "bool-switch", KRValue{KRValue{"LOG_HEAD_COMMAND", true}});
  writeValue("tracker_config", "gains", KRValue{KRValue{"MOVE_X_GAINS", KRValue{1, 2.5f, -3}}});
  writeValue("tracker_config", "lower-case", KRValue{KRValue{"head_threshold", 0.1f}});
  writeValue("tracker_config", "not-pairs", KRValue{KRValue{"HEAD_THRESHOLD"}});

  // Names handed back to the Namer, after one byte (0: as written, other: after the base).
  const std::string asWritten(1, '\0');
  for (const char* name :
       {"KRTracker/ObjectConverter7", "KRTracker/ObjectConverter-5", "KRTracker/ObjectConverter",
        "KRTracker/ObjectConverter7x", "Other/Name3", "xKRTracker/ObjectConverter0",
        "KRTracker/ObjectConverter2147483648", "KRTracker/ObjectConverter+42"}) {
    std::string file = name;
    for (char& c : file) {
      c = (c == '/') ? '_' : c;
    }
    write("namer", file, asWritten + name);
  }

  // Robot descriptions: the shipped robots and broken copies of one.
  const std::string kibo = read(robots + "/kibo.xml");
  write("robot_xml", "kibo.xml", kibo);
  write("robot_xml", "rover.xml", read(robots + "/rover.xml"));
  write("robot_xml", "empty", "");
  write("robot_xml", "bad-close", edited(kibo, "  </head>", "  </heed>"));
  write("robot_xml", "no-torso", edited(kibo, "  <torso height=\"0.318\"/>\n", ""));
  write("robot_xml", "nan", edited(kibo, "height=\"0.318\"", "height=\"nan\""));
  write("robot_xml", "min-above-max",
        edited(kibo, "min=\"-1.52\" max=\"0\"", "min=\"0.5\" max=\"0\""));
  write("robot_xml", "unknown-role",
        edited(kibo, "role=\"elbowYaw\" name=\"RElbowYaw\"", "role=\"elbow\" name=\"RElbowYaw\""));
  write("robot_xml", "two-roots", kibo + "<robot/>");
  write("robot_xml", "no-right-arm",
        kibo.substr(0, kibo.find("  <arm side=\"right\">")) + "</robot>\n");

  // URDF robots: the shipped mappings and URDFs, and broken copies of each.
  const std::string lumenYaml = read(robots + "/lumen.yaml");
  const std::string kiboYaml = read(robots + "/kibo.yaml");
  write("urdf_mapping", "kibo.yaml", kiboYaml);
  write("urdf_mapping", "lumen.yaml", lumenYaml);
  write("urdf_mapping", "rover.yaml", read(robots + "/rover.yaml"));
  write("urdf_mapping", "unknown-key", edited(lumenYaml, "torso:", "tors:"));
  write("urdf_mapping", "not-a-list", edited(lumenYaml, "  cameras:\n", "  cameras: {}\n  x:\n"));
  write("urdf_mapping", "missing-joint", edited(lumenYaml, "yaw: head_pan_joint", "yaw: pan"));
  write("urdf_mapping", "swapped-head",
        edited(edited(kiboYaml, "yaw: HeadYaw", "yaw: X"), "pitch: HeadPitch", "pitch: HeadYaw"));
  write("urdf_mapping", "overrides",
        lumenYaml +
            "can_look_behind: true\nwhole_body: {yaw_min: -1}\nmax_velocity: "
            "{head_pan_joint: 2}\nservos: {head_pan_joint: {stiffness: 9}}\n");
  const std::string lumenUrdf = read(robots + "/lumen.urdf");
  const std::string kiboUrdf = read(robots + "/kibo.urdf");
  write("urdf", "kibo.urdf", kiboUrdf);
  write("urdf", "lumen.urdf", lumenUrdf);
  write("urdf", "empty", "");
  write("urdf", "bad-close", edited(lumenUrdf, "</robot>", "</robo>"));
  write("urdf", "yaw-down", edited(kiboUrdf, "<axis xyz=\"0 0 1\"/>", "<axis xyz=\"0 0 -1\"/>"));
  write("urdf", "prismatic-head",
        edited(lumenUrdf, "\"head_tilt_joint\" type=\"revolute\"",
               "\"head_tilt_joint\" type=\"prismatic\""));
  write("urdf", "third-joint",
        edited(lumenUrdf, "\"head_camera_joint\" type=\"fixed\"",
               "\"head_camera_joint\" type=\"continuous\""));

  std::printf("%d seeds written to %s\n", gWritten, gOut.c_str());
  return 0;
}
