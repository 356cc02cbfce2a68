// The file stream on real files (a temporary directory mapped to T:) and on the in-memory fake:
// a randomized run of reads, writes, seeks, GetChar and PutBack against a byte vector for every
// buffer size, the places where a buffer starts and ends, the open rules, path tokens written in
// one folder and read in others, contexts, and failures of the file under the stream.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Platform/QXPlatform.h"
#include "QXException.h"
#include "QXFStream.h"
#include "platform/FileSystemBackends.h"
#include "streams/StreamTestSupport.h"

namespace {

constexpr uint32_t kRW = kQXStreamReadable | kQXStreamWritable;
const uint32_t kBufferSizes[] = {0, 1, 2, 3, 7, 64, 4096};

class FileStreamDisk : public ::testing::Test {
 protected:
  std::string Posix(const std::string& name) { return disk_.dir() + "/" + name; }
  void Put(const std::string& name, const std::string& data) {
    std::ofstream(Posix(name), std::ios::binary) << data;
  }
  std::string Get(const std::string& name) {
    std::ifstream in(Posix(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  QXLinuxBackend disk_;
};

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s)
    c = char(rng());
  return s;
}

TEST_F(FileStreamDisk, RandomOperationsAgainstModel) {
  const int rounds = 60 * qxtest::kScale;
  for (uint32_t size : kBufferSizes) {
    for (uint32_t seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE("buffer " + std::to_string(size) + " seed " + std::to_string(seed));
      std::mt19937 rng(seed * 1000 + size);
      struct {  // the file and one position: what every stream must show, whatever its buffer
        std::string bytes;
        int64_t pos = 0;
      } m;
      m.bytes = RandomBytes(rng() % 200, seed);
      Put("m.bin", m.bytes);
      {
        TQXfstream s("T:\\m.bin", kRW, size, nullptr);
        ASSERT_EQ(s.state, 0u);
        bool haveLast = false;  // the last step was a GetChar that gave a byte
        char last = 0;
        for (int i = 0; i < rounds; ++i) {
          const uint32_t op = rng() % 6;
          const int32_t n = int32_t(rng() % (rng() % 4 == 0 ? 300 : 12));
          if (op == 0) {
            std::string out(size_t(n), '\x55');
            s.Read(out.data(), n);
            const int64_t got = std::clamp<int64_t>(int64_t(m.bytes.size()) - m.pos, 0, n);
            ASSERT_EQ(s.lastCount, got);
            ASSERT_EQ(s.state & kQXStreamEnd, n > got ? kQXStreamEnd : 0u);
            ASSERT_EQ(out.substr(0, size_t(got)),
                      got ? m.bytes.substr(size_t(m.pos), size_t(got)) : "");
            m.pos += got;
          } else if (op == 1) {
            const std::string data = RandomBytes(size_t(n), rng());
            s.Write(data.data(), n);
            ASSERT_EQ(s.state, 0u);
            if (n > 0) {  // a write past the end fills the gap with zeros
              m.bytes.resize(std::max(m.bytes.size(), size_t(m.pos + n)), '\0');
              m.bytes.replace(size_t(m.pos), size_t(n), data);
              m.pos += n;
            }
          } else if (op == 2) {
            const int32_t whence = int32_t(rng() % 3);
            const int64_t length = int64_t(m.bytes.size());
            int64_t target = rng() % (length + 5 + (size ? 2 * size : 0));
            if (rng() % 8 == 0) target = m.pos;
            const int64_t offset = whence == 0   ? target
                                   : whence == 1 ? target - m.pos
                                                 : length - target;
            s.Seek(int32_t(offset), whence);
            ASSERT_EQ(s.state & kQXStreamFailed, 0u);
            m.pos = target;
          } else if (op == 3) {
            char c = 0;
            s.GetChar(c);
            haveLast = m.pos < int64_t(m.bytes.size());
            ASSERT_EQ(s.state, haveLast ? 0u : kQXStreamEnd);
            if (haveLast) {
              ASSERT_EQ(c, m.bytes[size_t(m.pos++)]);
            }
            last = c;
            continue;
          } else if (op == 4 && haveLast) {
            s.PutBack(last);
            ASSERT_EQ(s.state & kQXStreamFailed, 0u);
            --m.pos;
          } else if (op == 5 && rng() % 4 == 0) {
            s.Flush();
          }
          haveLast = false;
          ASSERT_EQ(s.Tell(), m.pos);
        }
      }
      ASSERT_EQ(Get("m.bin"), m.bytes);
    }
  }
}

TEST_F(FileStreamDisk, SeeksToBufferEdgesAndFileEnd) {
  const std::string data = RandomBytes(100, 7);
  Put("e.bin", data);
  for (uint32_t size : kBufferSizes) {
    SCOPED_TRACE("buffer " + std::to_string(size));
    TQXfstream s("T:\\e.bin", kQXStreamReadable, size, nullptr);
    char c;
    s.GetChar(c);  // loads the first buffer
    const int32_t edge = int32_t(size), places[] = {0, edge - 1, edge, edge + 1, 99, 100, 130};
    for (int32_t target : places) {
      if (target < 0) continue;
      s.Seek(target, 0);
      const uint32_t end =
          size ? (target > 100 ? kQXStreamEnd : 0u) : (target == 100 ? kQXStreamEnd : 0u);
      EXPECT_EQ(s.state, end) << target;
      EXPECT_EQ(s.Tell(), target);
      char got = 'x';
      s.GetChar(got);
      EXPECT_EQ(s.state, target < 100 ? 0u : kQXStreamEnd) << target;
      if (target < 100) {
        EXPECT_EQ(got, data[size_t(target)]);
      }
      s.Seek(-3, 1);
    }
    s.Seek(0, 2);
    EXPECT_EQ(s.Tell(), 100);
    s.Seek(-1, 0);
    EXPECT_EQ(s.state & kQXStreamFailed, kQXStreamFailed);
    for (int32_t huge : {INT32_MIN, INT32_MAX}) {
      for (int32_t whence : {0, 1, 2, 9}) {
        s.Seek(huge, whence);  // only safety is asked of these
        s.GetChar(c);
      }
    }
  }
}

TEST_F(FileStreamDisk, SeekToBufferStartReloadsAndPutBackCrossesBuffers) {
  Put("r.txt", "abcdefghij");
  TQXfstream s("T:\\r.txt", kQXStreamReadable, 4, nullptr);
  char c;
  s.Seek(4, 0);
  s.GetChar(c);
  EXPECT_EQ(c, 'e');
  Put("r.txt", "ABCDEFGHIJ");  // behind the stream's back
  s.Seek(5, 0);                // inside the buffer: the old byte
  s.GetChar(c);
  EXPECT_EQ(c, 'f');
  s.Seek(4, 0);  // the buffer's first byte: reloaded
  s.GetChar(c);
  EXPECT_EQ(c, 'E');
  s.Seek(0, 0);
  s.PutBack('z');
  EXPECT_EQ(s.state, kQXStreamFailed);
  // A put-back byte is what the next read sees; back over two buffer starts.
  s.Seek(2, 0);
  s.GetChar(c);
  s.PutBack('x');
  s.GetChar(c);
  EXPECT_EQ(c, 'x');
  s.Seek(9, 0);
  for (char put : {'I', 'H', 'G', 'F', 'E', 'D'})
    s.PutBack(put);
  EXPECT_EQ(s.state, 0u);
  EXPECT_EQ(s.Tell(), 3);
  char text[8] = {};
  s.Read(text, 7);
  EXPECT_EQ(std::string(text), "DEFGHIJ");
}

TEST_F(FileStreamDisk, OpenCreateAndTruncateRules) {
  bool created = false;
  {
    TQXfstream s("T:\\new.txt", kRW | kQXStreamNoCreate, 16, &created);
    EXPECT_EQ(s.state, kQXStreamFailed);
    EXPECT_FALSE(created);
    EXPECT_EQ(s.OpenPath("T:\\new.txt", kQXStreamReadable, 16, &created), uint32_t(kQXErrNotFound));
    EXPECT_EQ(s.OpenPath("T:\\new.txt", kRW, 16, &created), 0u);
    EXPECT_TRUE(created);
    EXPECT_EQ(s.state, 0u);
    s << "hello";
  }
  EXPECT_EQ(Get("new.txt"), "hello");
  {
    TQXfstream s("T:\\new.txt", kRW, 16, &created);  // read and write: kept
    EXPECT_FALSE(created);
    EXPECT_EQ(s.fileLength, 5u);
    s.Seek(0, 2);
    s << "!";
  }
  EXPECT_EQ(Get("new.txt"), "hello!");
  {
    TQXfstream s("T:\\new.txt", kQXStreamWritable, 0, &created);  // write only: truncated
    EXPECT_EQ(Get("new.txt"), "");
    char c;
    s.Read(&c, 1);
    EXPECT_EQ(s.state, kQXStreamFailed);
    s << "w";
  }
  EXPECT_EQ(Get("new.txt"), "w");
  TQXfstream reader("T:\\new.txt", kQXStreamReadable, 8, nullptr);
  reader.Write("x", 1);
  EXPECT_EQ(reader.state, kQXStreamFailed);

  // A stream without a file fails every operation and touches nothing.
  TQXfstream none;
  char c = 'q';
  none.Read(&c, 1);
  none.Write(&c, 1);
  none.Seek(3, 0);
  none.GetChar(c);
  none.PutBack(c);
  EXPECT_EQ(none.state, kQXStreamFailed);
  EXPECT_EQ(none.GetContext(), nullptr);
}

TEST_F(FileStreamDisk, FileShorterThanTheStreamKnows) {
  Put("s.bin", RandomBytes(100, 3));
  for (uint32_t size : kBufferSizes) {
    TQXfstream s("T:\\s.bin", kQXStreamReadable, size, nullptr);
    ASSERT_EQ(truncate(Posix("s.bin").c_str(), 20), 0);
    std::vector<char> out(200);
    s.Seek(10, 0);
    s.Read(out.data(), 200);
    EXPECT_EQ(s.lastCount, 10);
    EXPECT_NE(s.state, 0u);
    s.Seek(50, 0);
    char c = 0;
    s.GetChar(c);
    s.PutBack(c);
    s.SyncFromFile();
    EXPECT_EQ(s.fileLength, 20u);
    Put("s.bin", RandomBytes(100, 3));
  }
}

TEST_F(FileStreamDisk, SyncFromFileSeesWritesBehindTheStream) {
  TQXFile* f = nullptr;
  TQXFile::Create(&f);
  ASSERT_NE(f, nullptr);
  f->SetFullPath(TQXStringUTF8(std::string("T:\\g.txt")), false);
  bool created = false;
  {
    TQXfstream s(f, kRW, 4, &created);
    EXPECT_TRUE(created);
    s.Write("abcde", 5);
    s.Flush();
    uint32_t done = 0;
    ASSERT_EQ(f->SetPosition(0, 2), 0u);
    ASSERT_EQ(f->Write("XYZ", 3, &done), 0u);
    ASSERT_EQ(f->SetPosition(1, 0), 0u);  // the stream must not rely on where this leaves it
    s.SyncFromFile();
    EXPECT_EQ(s.fileLength, 8u);
    EXPECT_EQ(s.Tell(), 8);
    s.Seek(0, 0);
    char text[9] = {};
    s.Read(text, 8);
    EXPECT_STREQ(text, "abcdeXYZ");
  }
  // The mode that keeps the file's own access mode (read and write by default).
  TQXfstream kept(f, TQXfstream::kQXFileStreamKeepMode, 16, nullptr);
  EXPECT_EQ(kept.mode, kRW);
  EXPECT_EQ(kept.fileLength, 8u);
  f->Release();
}

TEST_F(FileStreamDisk, PathTokensMoveWithTheirFolder) {
  ASSERT_EQ(system(("mkdir -p " + Posix("a/b") + " " + Posix("q/r")).c_str()), 0);
  const char* paths[] = {"T:\\a\\b\\x.txt", "t:\\A\\c\\y.txt", "T:\\z.txt", "X:\\other", "word"};
  {
    TQXfstream s("T:\\a\\b\\list.txt", kRW, 64, nullptr);
    for (const char* p : paths) {
      s.WriteQuoted(p);
      s << " ";
    }
  }
  EXPECT_EQ(Get("a/b/list.txt"), "\":x.txt\" \"::c:y.txt\" \":::z.txt\" \"X:\\\\other\" \"word\" ");
  ASSERT_EQ(system(("cp " + Posix("a/b/list.txt") + " " + Posix("q/r/list.txt")).c_str()), 0);
  const char* expected[][5] = {
      {"T:\\a\\b\\x.txt", "T:\\a\\c\\y.txt", "T:\\z.txt", "X:\\other", "word"},
      {"T:\\q\\r\\x.txt", "T:\\q\\c\\y.txt", "T:\\z.txt", "X:\\other", "word"}};
  const char* folders[] = {"T:\\a\\b\\list.txt", "T:\\q\\r\\list.txt"};
  for (int f = 0; f < 2; ++f) {
    TQXfstream s(folders[f], kQXStreamReadable, 3, nullptr);
    char word[kQXStreamWordMax + 1];
    for (const char* want : expected[f]) {
      s.ReadWord(word);
      EXPECT_STREQ(word, want);
    }
  }
  // More levels than folders stop at the drive's root; a long result is cut to a word.
  Put("a/b/up.txt", "::::::top.txt :deep:" + std::string(300, 'n'));
  TQXfstream s("T:\\a\\b\\up.txt", kQXStreamReadable, 16, nullptr);
  char word[kQXStreamWordMax + 1];
  s.ReadWord(word);
  EXPECT_STREQ(word, "T:\\top.txt");
  s.ReadWord(word);
  EXPECT_EQ(std::string(word), "T:\\a\\b\\deep\\" + std::string(kQXStreamWordMax - 12, 'n'));
}

TEST_F(FileStreamDisk, ContextReopensAndFollowsRenames) {
  Put("c.txt", "0123456789");
  TQXfstream* s = new TQXfstream("T:\\c.txt", kQXStreamReadable, 4, nullptr);
  s->Seek(6, 0);
  std::unique_ptr<TQXiostreamContext> context(s->GetContext());
  delete s;
  ASSERT_NE(context, nullptr);
  ASSERT_EQ(rename(Posix("c.txt").c_str(), Posix("d.txt").c_str()), 0);
  std::unique_ptr<TQXiostream> lost(context->Reopen());
  EXPECT_EQ(lost->state, kQXStreamFailed);
  context->Update("T:\\c.txt", "T:\\d.txt", 1);
  context->Update("T:\\nothing", "T:\\c.txt", 1);  // not this stream's path
  const uint32_t rw = kRW;
  context->Update(nullptr, &rw, 2);
  std::unique_ptr<TQXiostream> back(context->Reopen());
  EXPECT_EQ(back->state, 0u);
  EXPECT_EQ(back->Tell(), 6);
  EXPECT_EQ(back->mode, kRW);
  *back << "ab";
  back.reset();
  EXPECT_EQ(Get("d.txt"), "012345ab89");
}

// Failures of the file under the stream, on the fake: the n-th write (or read) of the file
// fails, for every n until a run goes through. The failing operation reports it in `state`, and
// what reached the file before the failure is there.
TEST(FileStreamFake, FailingWritesAndReadsKeepWhatCameBefore) {
  QXFakeBackend backend;
  QXPlatform::ScopedRole<TQXPlatformFileSystem> role(backend.fs());
  const std::string data = RandomBytes(300, 11);
  for (uint32_t nth = 1;; ++nth) {
    backend.fake().ClearFailures();
    backend.fake().FailCall(TQXFakeFileSystem::Op::kWrite, nth, kQXSysDiskFull);
    bool failed = false;
    {
      TQXfstream s("T:\\w.bin", kQXStreamWritable, 16, nullptr);
      for (size_t at = 0; at < data.size(); at += 10) {
        s.Write(data.data() + at, 10);
        failed |= (s.state & kQXStreamFailed) != 0;
      }
      s.Flush();
      failed |= (s.state & kQXStreamFailed) != 0;
    }
    std::string disk;
    ASSERT_TRUE(backend.fake().GetFile("T:\\w.bin", disk));
    if (!failed) {
      EXPECT_EQ(disk, data);
      EXPECT_GE(nth, 300u / 16);
      break;
    }
    const size_t before = (nth - 1) * 16;  // whole buffers written before the failing one
    ASSERT_GE(disk.size(), before);
    EXPECT_EQ(disk.substr(0, before), data.substr(0, before)) << nth;
  }
  ASSERT_EQ(backend.fake().PutFile("T:\\r.bin", data), 0u);
  for (uint32_t nth = 1; nth < 300 / 16 + 2; ++nth) {
    backend.fake().ClearFailures();
    backend.fake().FailCall(TQXFakeFileSystem::Op::kRead, nth, kQXSysReadFault);
    TQXfstream s("T:\\r.bin", kQXStreamReadable, 16, nullptr);
    std::string got;
    char c = 0;
    for (s.GetChar(c); s.state == 0; s.GetChar(c))
      got += c;
    EXPECT_EQ(s.state & kQXStreamFailed, kQXStreamFailed) << nth;
    EXPECT_EQ(got, data.substr(0, (nth - 1) * 16)) << nth;
  }
  // A file that can no longer move its position ends a read that needs it, with nothing read.
  backend.fake().ClearFailures();
  TQXfstream s("T:\\r.bin", kQXStreamReadable, 16, nullptr);
  char out[16];
  s.Read(out, 10);
  s.Read(out, 6);  // the buffer is spent, not emptied
  backend.fake().FailCall(TQXFakeFileSystem::Op::kSeek, 1, kQXSysGenFailure, true);
  s.SyncFromFile();
  s.Seek(16, 0);
  s.Read(out, 8);
  EXPECT_EQ(s.lastCount, 0);
  EXPECT_EQ(s.state, kQXStreamEnd | kQXStreamFailed);
}

}  // namespace
