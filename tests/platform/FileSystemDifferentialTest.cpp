// The fake against the Linux side: the same random sequence of operations on both, on a small set
// of names so that they collide, with every result and every read compared, and the two trees
// compared after each step. A difference names the seed and the step.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "FileSystemBackends.h"

namespace {

#ifdef QX_SANITIZED_BUILD
constexpr int kSteps = 150;
#else
constexpr int kSteps = 600;
#endif
constexpr int kSeeds = 4;

const char* const kPaths[] = {
    "T:\\a",    "T:\\b.txt",     "T:\\B.TXT",   "T:\\.h",           "T:\\d",     "T:\\d\\a",
    "T:\\d\\e", "T:\\d\\e\\f.z", "T:\\x",       "T:\\x\\y",         "T:\\a\\",   "T:\\d\\e\\",
    "T:\\",     "T:\\d\\b.txt",  "T:\\d\\a\\g", "T:\\d\\..\\b.txt", "T:d\\e\\h", "d\\e",
};
// Names of files, drawn more often where a file is wanted, and of folders.
const char* const kFiles[] = {"T:\\a",    "T:\\b.txt",    "T:\\B.TXT",     "T:\\.h",
                              "T:\\d\\a", "T:\\d\\b.txt", "T:\\d\\e\\f.z", "T:\\x\\y"};
const char* const kFolders[] = {"T:\\d", "T:\\d\\e", "T:\\x", "T:\\d\\a"};
// How often each operation is drawn, in the order of the switch below.
const int kWeights[] = {6, 6, 4, 6, 5, 3, 2, 1, 4, 4, 3, 5, 4, 3, 2, 1, 2};
const char* const kPatterns[] = {"T:\\*",         "T:\\*.txt",   "T:\\d\\*", "T:\\?",
                                 "T:\\d\\e\\*.*", "T:\\nope\\*", "T:\\a",    "T:\\d\\?.*"};

struct Side {
  TQXPlatformFileSystem* fs;
  std::vector<TQXFileHandle> handles;
};

// One line per entry of a tree: path, kind, size, attributes and, for files, the data.
void Listing(TQXPlatformFileSystem& fs, const std::string& folder, std::ostringstream& out,
             const std::function<std::string(const std::string&)>& data) {
  TQXFindHandle find;
  TQXFindEntry e;
  std::vector<std::string> lines;
  std::vector<std::string> folders;
  if (fs.FindFirst((folder + "*").c_str(), find, e) == 0) {
    do {
      const std::string path = folder + e.name;
      std::ostringstream line;
      line << path << (e.attributes.isFolder ? "\\" : "") << " size " << e.attributes.size
           << (e.attributes.isReadOnly ? " ro" : "") << (e.attributes.isHidden ? " hidden" : "");
      if (e.attributes.isFolder)
        folders.push_back(path + "\\");
      else
        line << " [" << data(path) << "]";
      lines.push_back(line.str());
    } while (fs.FindNext(find, e) == 0);
    fs.FindClose(find);
  }
  std::sort(lines.begin(), lines.end());
  std::sort(folders.begin(), folders.end());
  for (const std::string& l : lines)
    out << l << "\n";
  for (const std::string& f : folders)
    Listing(fs, f, out, data);
}

class ScopedCurrentDirectory {
 public:
  explicit ScopedCurrentDirectory(const std::string& dir)
      : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~ScopedCurrentDirectory() { std::filesystem::current_path(saved_); }

 private:
  std::filesystem::path saved_;
};

class Differential : public ::testing::TestWithParam<int> {
 protected:
  std::string LinuxTree() {
    std::ostringstream out;
    Listing(linux_.fs(), "T:\\", out, [this](const std::string& path) {
      std::string posix = linux_.dir() + "/" + path.substr(3);
      std::replace(posix.begin(), posix.end(), '\\', '/');
      std::ifstream in(posix, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(in), {});
    });
    return out.str();
  }
  std::string FakeTree() {
    std::ostringstream out;
    Listing(fake_.fs(), "T:\\", out, [this](const std::string& path) {
      std::string data;
      fake_.fake().GetFile(path.c_str(), data);
      return data;
    });
    return out.str();
  }

  QXLinuxBackend linux_;
  QXFakeBackend fake_;
};

TEST_P(Differential, SameResultsAsLinux) {
  const int seed = GetParam();
  std::mt19937 rng(uint32_t(seed) * 7919u + 1);
  const bool hidden = QXTestHiddenStorable(linux_.fs());
  fake_.fake().SetHiddenStorable(hidden);
  Side sides[2] = {{&linux_.fs(), {}}, {&fake_.fs(), {}}};
  // The same start on both sides, and the current directory on T: for the relative paths.
  for (Side& side : sides) {
    for (const char* folder : {"T:\\d", "T:\\d\\e", "T:\\x"})
      ASSERT_EQ(side.fs->CreateFolder(folder), 0u);
    for (const char* file : {"T:\\a", "T:\\d\\b.txt", "T:\\d\\e\\f.z"}) {
      TQXFileHandle h;
      uint32_t done;
      ASSERT_EQ(side.fs->CreateNewFile(file, &h), 0u);
      ASSERT_EQ(side.fs->Write(h, file, uint32_t(std::strlen(file)), done), 0u);
      ASSERT_EQ(side.fs->Close(h), 0u);
    }
  }
  ScopedCurrentDirectory here(linux_.dir());
  ASSERT_TRUE(fake_.fake().SetCurrentDirectory("T:\\"));
  std::discrete_distribution<int> pick(std::begin(kWeights), std::end(kWeights));
  auto path = [&] { return kPaths[rng() % std::size(kPaths)]; };
  auto file = [&] { return rng() % 4 ? kFiles[rng() % std::size(kFiles)] : path(); };
  auto folder = [&] { return rng() % 4 ? kFolders[rng() % std::size(kFolders)] : path(); };

  for (int step = 0; step < kSteps; ++step) {
    const int op = pick(rng);
    // Files for the operations on files, folders for those on folders.
    const char* p = op <= 1 || op == 9 || op == 12 ? file()
                    : op == 8 || op == 10          ? folder()
                                                   : path();
    const char* q = op == 12 ? file() : path();
    // Mostly an open handle; now and then one past the end, which stands for a closed one.
    const size_t open = sides[0].handles.size();
    const size_t slot = open && rng() % 8 ? rng() % open : open;
    const bool flag = rng() % 2;
    const bool rarely = rng() % 4 == 0;
    const int32_t number = int32_t(rng() % 100) - 20;
    const TQXFileAccess access = TQXFileAccess(1 + rng() % 3);
    std::string data(size_t(rng() % 40), 'x');
    for (char& c : data)
      c = char('a' + rng() % 26);
    const char* pattern = kPatterns[rng() % std::size(kPatterns)];
    std::ostringstream what;
    std::string results[2];
    for (int s = 0; s < 2; ++s) {
      what.str("");
      TQXPlatformFileSystem& fs = *sides[s].fs;
      std::vector<TQXFileHandle>& hs = sides[s].handles;
      // A slot past the end stands for a handle that is not open.
      const TQXFileHandle h = slot < hs.size() ? hs[slot] : 100000;
      std::ostringstream r;
      uint32_t done = 0;
      uint64_t pos = 0;
      switch (op) {
        case 0: {
          what << "CreateNewFile " << p << (flag ? " kept open" : "");
          TQXFileHandle made;
          const uint32_t e = fs.CreateNewFile(p, flag ? &made : nullptr);
          r << e;
          if (e == 0 && flag) hs.push_back(made);
          break;
        }
        case 1: {
          what << "Open " << p << " " << int(access);
          TQXFileHandle opened;
          const uint32_t e = fs.Open(p, access, opened);
          r << e;
          if (e == 0) hs.push_back(opened);
          break;
        }
        case 2:
          what << "Close " << slot;
          r << fs.Close(h);
          if (slot < hs.size()) hs.erase(hs.begin() + std::ptrdiff_t(slot));
          break;
        case 3:
          what << "Write " << slot << " " << data.size();
          r << fs.Write(h, data.data(), uint32_t(data.size()), done) << " " << done;
          break;
        case 4: {
          what << "Read " << slot << " " << number;
          std::string buffer(100, '\0');
          r << fs.Read(h, buffer.data(), uint32_t(std::max(0, number)), done) << " "
            << buffer.substr(0, done);
          break;
        }
        case 5:
          what << "Seek " << slot << " " << number << " " << int(access) - 1;
          r << fs.Seek(h, number, TQXSeekOrigin(int(access) - 1), pos) << " " << pos;
          break;
        case 6:
          what << "SetLength " << slot << " " << number + 20;
          r << fs.SetLength(h, uint64_t(number + 20));
          break;
        case 7:
          what << "GetLength/GetPosition " << slot;
          r << fs.GetLength(h, pos) << " " << pos;
          r << " " << fs.GetPosition(h, pos) << " " << pos;
          break;
        case 8:
          what << "CreateFolder " << p;
          r << fs.CreateFolder(p);
          break;
        case 9:
          what << "DeleteFile " << p;
          r << fs.DeleteFile(p);
          break;
        case 10:
          what << "RemoveFolder " << p;
          r << fs.RemoveFolder(p);
          break;
        case 11:
          what << "Move " << p << " " << q << (flag ? " replacing" : "");
          r << fs.Move(p, q, flag);
          break;
        case 12:
          what << "CopyFile " << p << " " << q;
          r << fs.CopyFile(p, q);
          break;
        case 13: {
          // Read-only folders would stop an unprivileged Linux process from changing what is
          // inside them, which the fake does not model: only files are made read-only.
          TQXFileAttributes a;
          const bool isFolder = fs.GetAttributes(p, a) == 0 && a.isFolder;
          what << "SetAttributes " << p << " " << rarely << " " << (hidden && (number & 1));
          r << fs.SetAttributes(p, rarely && !isFolder, hidden && (number & 1));
          break;
        }
        case 14: {
          what << "GetAttributes " << p;
          TQXFileAttributes a;
          r << fs.GetAttributes(p, a) << " " << a.isFolder << a.isReadOnly << a.isHidden << " "
            << a.size;
          break;
        }
        case 15:
          what << "TestAccess " << p << " " << int(access);
          r << fs.TestAccess(p, access);
          break;
        case 16: {
          what << "Find " << pattern;
          TQXFindHandle find;
          TQXFindEntry e;
          const uint32_t first = fs.FindFirst(pattern, find, e);
          r << first;
          std::vector<std::string> names;
          if (first == 0) {
            do
              names.push_back(e.name + (e.attributes.isFolder ? "\\" : ""));
            while (fs.FindNext(find, e) == 0);
            r << " close " << fs.FindClose(find);
          }
          std::sort(names.begin(), names.end());
          for (const std::string& n : names)
            r << " " << n;
          break;
        }
      }
      results[s] = r.str();
    }
    ASSERT_EQ(results[0], results[1]) << "seed " << seed << " step " << step << ": " << what.str();
    ASSERT_EQ(LinuxTree(), FakeTree()) << "seed " << seed << " step " << step << ": " << what.str();
  }
  for (Side& s : sides)
    for (TQXFileHandle h : s.handles)
      s.fs->Close(h);
}

INSTANTIATE_TEST_SUITE_P(Seeds, Differential, ::testing::Range(0, kSeeds));

}  // namespace
