// The zip writer against the real library and real files; verify_archives.py
// reads the archives back on the Linux side.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "ErrorHandling.h"
#include "PackerTestSupport.h"
#include "ZipArchive.h"

using Kestrel::CZipArchive;
using Lines = std::vector<std::pair<unsigned, std::wstring>>;

namespace {
template <typename Work>
HRESULT CodeOf(Work&& work) {
  try {
    work();
  } catch (const Kestrel::HRX& error) {
    return error.Code();
  }
  return S_OK;
}
}  // namespace

TEST(ZipArchive, WholeFilesBecomeBareDeflatedEntries) {
  const auto folder = PackerTest::FreshFolder(L"zip-entries");
  const auto logs = folder / L"logs";
  PackerTest::WriteLog(logs / L"service.log", 3 * 1024 * 1024 + 17);
  PackerTest::WriteLog(logs / L"empty.log", 0);
  std::string binary;
  for (int index = 0; index < 70000; ++index) binary.push_back(static_cast<char>(index * 7919 >> 3));
  std::ofstream(logs / L"binary.log", std::ios::binary) << binary;
  PackerTest::LogCapture capture;
  {
    CZipArchive archive((logs / L"entries.zip").wstring());
    for (const wchar_t* name : {L"service.log", L"empty.log", L"binary.log"}) {
      archive.Write((logs / name).wstring(), name);
      std::filesystem::copy_file(logs / name, folder / L"originals" / name);
      PackerTest::ExpectEntry(folder, L"logs\\entries.zip", name, std::wstring(L"originals\\") + name);
    }
    archive.Close();
    // Closed: the library refuses with its parameter error.
    EXPECT_EQ(CodeOf([&] { archive.Write((logs / L"empty.log").wstring(), L"late.log"); }), E_FAIL);
  }
  EXPECT_EQ(capture.Lines(L"ZipArchive", 2), (Lines{{76, L"Couldn't open a file in a .ZIP archive for writing"},
                                                    {77, L"zipOpenNewFileInZip return code: -102"}}));
  const Lines debug = capture.Lines(L"ZipArchive", 5);
  EXPECT_NE(std::find(debug.begin(), debug.end(), Lines::value_type(137, L"Compressed file path: binary.log")),
            debug.end());
}

TEST(ZipArchive, ArchiveThatCannotBeCreated) {
  const auto folder = PackerTest::FreshFolder(L"zip-failures");
  PackerTest::LogCapture capture;
  EXPECT_EQ(CodeOf([&] { CZipArchive archive((folder / L"absent" / L"a.zip").wstring()); }), E_FAIL);
  EXPECT_EQ(capture.Lines(L"ZipArchive", 2), (Lines{{126, L"Couldn't open a .ZIP archive file for writing"},
                                                    {127, L"zipOpen return code: TBD"}}));
}
