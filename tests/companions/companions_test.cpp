// The companion programs run as a farm script runs them, on frames that cacheview-synth makes:
// cacheview-merge gives the bytes of cacheview's own -load merges, skips damaged frames on
// request, and its JSON and cacheview-stats' JSON agree with -info; saves that a signal
// interrupts leave no temporary behind; cacheview-render reports write errors once; and every
// companion speaks the same options.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "cacheview_version.h"
#include "test_support/scratch_dir.h"

namespace {

using LUtils::testing::readWholeFile;
using LUtils::testing::writeWholeFile;
namespace fs = std::filesystem;

struct Outcome {
  int status = -1;
  std::string out, err;
};

class Companions : public LUtils::testing::ScratchDirTest {
 protected:
  Companions() : ScratchDirTest("companions") {}

  // Starts `args` in the test's directory with standard output and error going to files.
  // `inChild` runs in the child before the program starts (limits, signal dispositions).
  pid_t start(const std::vector<std::string>& args, const std::function<void()>& inChild = {}) {
    const std::string out = path(".out"), err = path(".err");
    const pid_t pid = fork();
    if (pid == 0) {
      if (chdir(dir_.c_str()) != 0) _exit(127);
      dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      if (inChild) inChild();
      std::vector<char*> argv;
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    return pid;
  }
  Outcome finish(pid_t pid) {
    Outcome r;
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = readWholeFile(path(".out"));
    r.err = readWholeFile(path(".err"));
    fs::remove(path(".out"));
    fs::remove(path(".err"));
    return r;
  }
  Outcome run(const std::vector<std::string>& args, const std::function<void()>& inChild = {}) {
    return finish(start(args, inChild));
  }
  // Through the shell, so that globs expand as in a farm script.
  Outcome shell(const std::string& line) { return run({"/bin/sh", "-c", line}); }

  void synth(const std::string& name, const std::vector<std::string>& options) {
    std::vector<std::string> args = {SYNTH_BINARY, "-q"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(name);
    const Outcome r = run(args);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // Frames 0..n-1 of a walk through the room: cameras 0 and 1 and seeds that differ, so that
  // the frames overlap partly.
  void frames(const std::string& extension, int n, int count) {
    for (int i = 0; i < n; ++i) {
      synth("frame" + std::to_string(i) + extension,
            {"--camera", std::to_string(i % 2), "--seed", std::to_string(i + 1), "--count",
             std::to_string(count)});
    }
  }
  std::string bytes(const std::string& name) { return readWholeFile(path(name)); }
  bool exists(const std::string& name) { return fs::exists(path(name)); }
  std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const auto& e : fs::directory_iterator(dir_)) all.push_back(e.path().filename());
    std::sort(all.begin(), all.end());
    return all;
  }
  // A value that python3 reads from a JSON document d (which must parse): a subscript of d such
  // as "['total']['kept']", or an expression over d.
  std::string jsonValue(const std::string& json, const std::string& expression) {
    writeWholeFile(path("doc.json"), json);
    const Outcome r = run({"/usr/bin/python3", "-c",
                       "import json; d=json.load(open('doc.json')); print(" +
                           (expression[0] == '[' ? "d" + expression : expression) + ")"});
    fs::remove(path("doc.json"));
    EXPECT_EQ(r.status, 0) << r.err << json;
    return r.out.substr(0, r.out.find('\n'));
  }
  std::string infoCount(const std::string& map) {
    const Outcome r = run({CACHEVIEW_BINARY, "-load", map, "-info", "-nodisplay"});
    const size_t at = r.out.find("Number of samples: ");
    if (at == std::string::npos) return "(no -info count)";
    const size_t from = at + std::strlen("Number of samples: ");
    return r.out.substr(from, r.out.find('\n', from) - from);
  }
};

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// A glob of frames merges into the bytes that cacheview's -load chain writes, plainly and
// incrementally, for irradiance maps and for light caches; a log gets plain progress lines.
TEST_F(Companions, GlobMergeEqualsTheLoadChainByteForByte) {
  frames(".lumap", 3, 20000);
  frames(".lulmap", 3, 5000);
  for (const std::string ext : {".lumap", ".lulmap"}) {
    for (const bool incremental : {false, true}) {
      const std::string flag = incremental ? " --incremental" : "";
      const Outcome merged = shell(std::string(MERGE_BINARY) + flag + " -o merged" + ext +
                               " frame*" + ext);
      ASSERT_EQ(merged.status, 0) << merged.err;
      EXPECT_EQ(merged.err, "");
      std::vector<std::string> chain = {CACHEVIEW_BINARY};
      if (incremental) chain.push_back("-incremental");
      for (int i = 0; i < 3; ++i) chain.insert(chain.end(), {"-load", "frame" + std::to_string(i) + ext});
      chain.insert(chain.end(), {"-save", "chain" + ext, "-nodisplay"});
      ASSERT_EQ(run(chain).status, 0);
      EXPECT_TRUE(bytes("merged" + ext) == bytes("chain" + ext)) << ext << flag;
      // Any number of threads writes the same file.
      for (const char* threads : {"1", "3", "8"}) {
        std::vector<std::string> args = {MERGE_BINARY, "-q", "--threads", threads};
        if (incremental) args.push_back("-i");
        args.insert(args.end(), {"-o", "threads" + ext, "frame0" + ext, "frame1" + ext, "frame2" + ext});
        ASSERT_EQ(run(args).status, 0);
        EXPECT_EQ(shell("cmp threads" + ext + " chain" + ext).status, 0) << threads << flag;
      }

      // Standard output is a file here: no carriage returns, ten progress lines for each of
      // the two frames merged into the first, one line per input and the total.
      const std::string& out = merged.out;
      EXPECT_EQ(out.find('\r'), std::string::npos);
      EXPECT_EQ(count(out, "% ("), 20u) << out;
      EXPECT_EQ(count(out, " 100% ("), 2u) << out;
      EXPECT_NE(out.find("frame1" + ext + ": " + (ext == ".lumap" ? "irradiance map" : "light cache")),
                std::string::npos) << out;
      EXPECT_NE(out.find("Merged 3 of 3 inputs" + std::string(incremental ? " incrementally" : "")),
                std::string::npos) << out;
      if (!incremental) {
        EXPECT_NE(out.find("0 discarded; wrote"), std::string::npos) << out;
      }
    }
  }
  EXPECT_EQ(run({MERGE_BINARY, "--threads", "0", "-o", "x.lumap", "frame0.lumap"}).status, 2);

  // The incremental merge really left samples out, and its summary says how many.
  const Outcome json = run({MERGE_BINARY, "-i", "--json", "-o", "again.lumap", "frame0.lumap",
                        "frame1.lumap", "frame2.lumap"});
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(jsonValue(json.out, "['total']['samples_offered']"), "60000");
  const std::string kept = jsonValue(json.out, "['total']['samples_kept']");
  EXPECT_LT(std::stoi(kept), 60000);
  EXPECT_EQ(jsonValue(json.out, "['total']['samples_written']"), kept);
  EXPECT_EQ(infoCount("again.lumap"), kept);
  EXPECT_EQ(jsonValue(json.out, "['inputs'][0]['samples_kept']"), "20000");
  EXPECT_EQ(jsonValue(json.out, "['total']['samples_discarded']"),
            std::to_string(60000 - std::stoi(kept)));
}

// A missing, a truncated and a JPEG frame in the middle: without --keep-going nothing is written
// and each is named with its reason; with it, the good frames are merged as cacheview merges
// them, each bad one is reported, and the exit status says that inputs were skipped.
TEST_F(Companions, KeepGoingSkipsDamagedFramesAndSaysWhy) {
  frames(".lumap", 3, 2000);
  const std::string whole = bytes("frame1.lumap");
  // 12 bytes of start and a 160-byte header, then 84 bytes per sample: 999 of 2000 remain.
  writeWholeFile(path("cut.lumap"), whole.substr(0, 12 + 160 + 84 * 999 + 40));
  writeWholeFile(path("photo.jpg"), std::string("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00", 11) +
                                        std::string(500, '\x11'));
  writeWholeFile(path("out.lumap"), "the previous merge");
  const std::vector<std::string> inputs = {"frame0.lumap", "gone.lumap", "cut.lumap",
                                           "frame1.lumap", "photo.jpg", "frame2.lumap"};
  const char* const reasons[] = {"gone.lumap: no such file",
                                 "cut.lumap: truncated: 999 of 2,000 samples present",
                                 "photo.jpg: not an irradiance map or light cache"};

  std::vector<std::string> args = {MERGE_BINARY, "--incremental", "-o", "out.lumap"};
  args.insert(args.end(), inputs.begin(), inputs.end());
  const Outcome strict = run(args);
  EXPECT_EQ(strict.status, 1);
  for (const char* reason : reasons) EXPECT_NE(strict.err.find(reason), std::string::npos) << strict.err;
  EXPECT_EQ(bytes("out.lumap"), "the previous merge");

  args.insert(args.begin() + 1, "--keep-going");
  const Outcome lenient = run(args);
  EXPECT_EQ(lenient.status, 3) << lenient.err;
  for (const char* reason : reasons) {
    EXPECT_NE(lenient.err.find(std::string(reason) + "; skipped"), std::string::npos) << lenient.err;
    EXPECT_NE(lenient.out.find(std::string(reason).insert(std::string(reason).find(':') + 1, " skipped:")),
              std::string::npos) << lenient.out;
  }
  EXPECT_NE(lenient.out.find("Merged 3 of 6 inputs incrementally"), std::string::npos) << lenient.out;
  ASSERT_EQ(run({CACHEVIEW_BINARY, "-incremental", "-load", "frame0.lumap", "-load", "frame1.lumap",
                 "-load", "frame2.lumap", "-save", "chain.lumap", "-nodisplay"}).status, 0);
  EXPECT_TRUE(bytes("out.lumap") == bytes("chain.lumap"));

  // A light cache among irradiance maps is refused like a damaged frame.
  synth("light.lulmap", {"--count", "100"});
  const Outcome mixed = run({MERGE_BINARY, "-k", "-o", "mixed.lumap", "frame0.lumap", "light.lulmap"});
  EXPECT_EQ(mixed.status, 3);
  EXPECT_NE(mixed.err.find("light.lulmap: a light cache, but the inputs before it are irradiance maps"),
            std::string::npos) << mixed.err;
  const Outcome none = run({MERGE_BINARY, "-k", "-o", "none.lumap", "gone.lumap"});
  EXPECT_EQ(none.status, 1);
  EXPECT_FALSE(exists("none.lumap"));
}

// cacheview-stats: its JSON parses and its counts are -info's; its text repeats the -info
// report; files that do not load get the reason a user understands.
TEST_F(Companions, StatsAgreeWithInfoAndNameWhyAFileDoesNotLoad) {
  synth("room.lumap", {"--count", "3000", "--render-ids"});
  synth("room.lulmap", {"--count", "700"});
  // A sample no index can place: a NaN position written into the first record.
  std::string map = bytes("room.lumap");
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::memcpy(map.data() + 12 + 160, &nan, 4);
  writeWholeFile(path("nan.lumap"), map);
  fs::create_directory(path("folder.lumap"));
  writeWholeFile(path("cut.lulmap"), bytes("room.lulmap").substr(0, 8 + 120 * 699 + 7));

  const Outcome json = run({STATS_BINARY, "--json", "room.lumap", "room.lulmap", "nan.lumap"});
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['samples']"), infoCount("room.lumap"));
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['samples']"), "3000");
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['file_size']"),
            std::to_string(fs::file_size(path("room.lumap"))));
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['version']"), std::to_string(0xD0000));
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['contains_render_ids']"), "True");
  EXPECT_EQ(jsonValue(json.out, "sum(i['samples'] for i in d['files'][0]['render_ids'])"), "3000");
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['unplaceable_samples']"), "0");
  EXPECT_EQ(jsonValue(json.out, "['files'][1]['kind']"), "light cache");
  EXPECT_EQ(jsonValue(json.out, "['files'][1]['samples']"), "700");
  EXPECT_EQ(jsonValue(json.out, "['files'][2]['unplaceable_samples']"), "1");
  EXPECT_EQ(jsonValue(json.out, "['files'][2]['radius']['count']"), "2999");
  // The box holds the room (8 x 6 x 3, floor at z = 0) and the means lie inside the ranges.
  EXPECT_EQ(jsonValue(json.out, "['files'][0]['bounding_box']['min'][2]"), "0");
  EXPECT_EQ(jsonValue(json.out, "all(r['min'] <= r['mean'] <= r['max'] for r in "
                                "[d['files'][0]['radius'], d['files'][0]['time']] + "
                                "list(d['files'][0]['colour'].values()))"),
            "True");

  // The text starts with -info's report, word for word.
  const Outcome info = run({CACHEVIEW_BINARY, "-load", "room.lumap", "-info", "-nodisplay"});
  const std::string report = info.out.substr(info.out.find("Sample size"));
  const Outcome text = run({STATS_BINARY, "room.lumap"});
  EXPECT_NE(text.out.find("Kind: irradiance map\n" + report + "Samples no index can place: 0\n"),
            std::string::npos) << text.out;

  const Outcome bad = run({STATS_BINARY, "--json", "gone.lumap", "folder.lumap", "cut.lulmap", "room.lumap"});
  EXPECT_EQ(bad.status, 1);
  for (const char* line : {"cacheview-stats: gone.lumap: no such file\n",
                           "cacheview-stats: folder.lumap: a directory\n",
                           "cacheview-stats: cut.lulmap: truncated: 699 of 700 samples present\n"}) {
    EXPECT_NE(bad.err.find(line), std::string::npos) << bad.err;
  }
  EXPECT_EQ(jsonValue(bad.out, "['files'][2]['error']"), "truncated: 699 of 700 samples present");
  EXPECT_EQ(jsonValue(bad.out, "['files'][3]['samples']"), "3000");
}

// Waits until a temporary of `target` exists and has grown past `bytes`; false after 60 s.
bool waitForTemporary(const std::string& dir, const std::string& target, uintmax_t bytes) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < end) {
    for (const auto& e : fs::directory_iterator(dir)) {
      const std::string name = e.path().filename();
      std::error_code ec;
      if (name.rfind("." + target + ".tmp-", 0) == 0 && fs::file_size(e.path(), ec) > bytes) {
        return true;
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return false;
}

// A large save killed half-way: SIGTERM leaves only the old file; after a SIGKILL the temporary
// stays until the next save of the same target removes it.
TEST_F(Companions, KilledSavesLeaveNoTemporaryBehind) {
  // 2,000,000 samples (168 MB): the records of a small frame repeated, which is quick to make.
  synth("small.lumap", {"--count", "1000"});
  const std::string small = bytes("small.lumap");
  const size_t headerBytes = 12 + 160;
  std::string big = small.substr(0, headerBytes);
  const uint32_t samples = 2000000;
  std::memcpy(big.data() + 4, &samples, 4);
  const std::string records = small.substr(headerBytes);
  big.reserve(headerBytes + size_t{84} * samples);
  for (uint32_t i = 0; i < samples / 1000; ++i) big += records;
  writeWholeFile(path("big.lumap"), big);
  big.clear();
  big.shrink_to_fit();
  writeWholeFile(path("out.lumap"), "the old merge");

  const pid_t term = start({CACHEVIEW_BINARY, "-load", "big.lumap", "-save", "out.lumap", "-nodisplay"});
  ASSERT_TRUE(waitForTemporary(dir_, "out.lumap", 1 << 20));
  kill(term, SIGTERM);
  const Outcome terminated = finish(term);
  EXPECT_EQ(terminated.status, 128 + SIGTERM);
  EXPECT_EQ(bytes("out.lumap"), "the old merge");
  EXPECT_EQ(names(), (std::vector<std::string>{"big.lumap", "out.lumap", "small.lumap"}));

  const pid_t killed = start({MERGE_BINARY, "-q", "-o", "out.lumap", "big.lumap"});
  ASSERT_TRUE(waitForTemporary(dir_, "out.lumap", 1 << 20));
  kill(killed, SIGKILL);
  EXPECT_EQ(finish(killed).status, 128 + SIGKILL);
  EXPECT_EQ(bytes("out.lumap"), "the old merge");
  EXPECT_EQ(names().size(), 4u) << "the killed save's temporary";

  const Outcome next = run({MERGE_BINARY, "-q", "-o", "out.lumap", "small.lumap"});
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_EQ(bytes("out.lumap"), small);
  EXPECT_EQ(names(), (std::vector<std::string>{"big.lumap", "out.lumap", "small.lumap"}));
}

// cacheview-render names the renderer it used and reports a picture it cannot write once, with
// the system's reason, leaving neither a partial picture nor a temporary.
TEST_F(Companions, RenderNamesItsRendererAndReportsWriteErrorsOnce) {
  synth("room.lumap", {"--count", "2000"});
  const Outcome sw = run({RENDER_BINARY, "-b", "sw", "-j", "1", "-s", "64x48", "room.lumap", "a.png"});
  ASSERT_EQ(sw.status, 0) << sw.err;
  EXPECT_NE(sw.out.find("drawn by the software rasterizer, 1 thread"), std::string::npos) << sw.out;
  // The default is OpenGL only where graphics hardware draws it; either way the report says
  // which renderer drew the picture.
  const Outcome automatic = run({RENDER_BINARY, "-s", "64x48", "room.lumap", "b.png"});
  ASSERT_EQ(automatic.status, 0) << automatic.err;
  const bool viaSoftwareGL = automatic.out.find("OpenGL here is the software driver") != std::string::npos;
  const bool viaHardwareGL = automatic.out.find("drawn by OpenGL (") != std::string::npos;
  const bool withoutGL = automatic.out.find("no OpenGL context here") != std::string::npos;
  EXPECT_TRUE(viaSoftwareGL || viaHardwareGL || withoutGL) << automatic.out;

  const Outcome full = run({RENDER_BINARY, "-b", "sw", "-s", "64x48", "room.lumap", "/dev/full"});
  EXPECT_EQ(full.status, 1);
  EXPECT_EQ(full.err, "cacheview-render: cannot write \"/dev/full\": No space left on device\n");

  // A file-size limit stands in for a full disk on a regular file.
  const Outcome limited = run({RENDER_BINARY, "-b", "sw", "-s", "640x480", "room.lumap", "c.png"}, [] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
  });
  EXPECT_EQ(limited.status, 1);
  EXPECT_EQ(limited.err, "cacheview-render: cannot write \"c.png\": File too large\n");
  EXPECT_EQ(names(), (std::vector<std::string>{"a.png", "b.png", "room.lumap"}));
}

// Every companion: --help and --version on standard output with status 0, the program's own
// version, an unknown option with status 2 and a hint, -q silent on success, and long options'
// values after '=' or as the next argument.
TEST_F(Companions, EveryCompanionSpeaksTheSameOptions) {
  synth("room.lumap", {"--count", "500"});
  const std::vector<std::pair<std::string, std::vector<std::string>>> programs = {
      {MERGE_BINARY, {"-q", "--output=m.lumap", "room.lumap"}},
      {STATS_BINARY, {"-q", "room.lumap"}},
      {SYNTH_BINARY, {"-q", "--count=10", "s.lumap"}},
      {RENDER_BINARY, {"-q", "--backend=sw", "--size", "32x24", "room.lumap", "r.png"}}};
  for (const auto& [program, quietRun] : programs) {
    const std::string name = fs::path(program).filename();
    const Outcome help = run({program, "--help"});
    EXPECT_EQ(help.status, 0) << name;
    EXPECT_EQ(help.out.rfind("Usage: " + name + " ", 0), 0u) << name;
    EXPECT_NE(help.out.find("--version"), std::string::npos) << name;
    EXPECT_NE(help.out.find("-q, --quiet"), std::string::npos) << name;
    EXPECT_EQ(run({program, "-h"}).out, help.out) << name;
    const Outcome version = run({program, "--version"});
    EXPECT_EQ(version.status, 0) << name;
    EXPECT_EQ(version.out, name + " " + CACHEVIEW_VERSION + "\n");
    const Outcome unknown = run({program, "--no-such-option", "x"});
    EXPECT_EQ(unknown.status, 2) << name;
    EXPECT_NE(unknown.err.find("Try '" + name + " --help'"), std::string::npos) << unknown.err;
    std::vector<std::string> args = {program};
    args.insert(args.end(), quietRun.begin(), quietRun.end());
    const Outcome quiet = run(args);
    EXPECT_EQ(quiet.status, 0) << name << quiet.err;
    EXPECT_EQ(quiet.out + quiet.err, "") << name;
  }
  EXPECT_TRUE(exists("m.lumap") && exists("s.lumap") && exists("r.png"));
  // The synthesiser's format option under its new name and its old spelling.
  for (const char* option : {"--format-version", "--version", "-V", "-F"}) {
    synth("old.lumap", {option, "0xC0000", "--count", "10"});
    const Outcome stats = run({STATS_BINARY, "old.lumap"});
    EXPECT_NE(stats.out.find("Format version: 12 (0xC0000)"), std::string::npos) << option;
  }
}

}  // namespace
