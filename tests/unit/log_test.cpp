// The location of the log, the form of its lines, and the lines that the configured level selects.
#include <filesystem>
#include <fstream>

#include "module_test.h"
#include "test_platform.h"

namespace {

namespace fs = std::filesystem;

// The text with a 9 for every digit.
std::string shape(std::string text) {
  for (char& c : text) c = c >= '0' && c <= '9' ? '9' : c;
  return text;
}

using LogTest = ModuleTest;

TEST_F(LogTest, FileIsNamedByProcessAndDayAndLinesByTime) {
  ASSERT_TRUE(waitForListings(2));  // the monitor writes its last line after the first
  EXPECT_EQ(C_CloseSession(1), CKR_SESSION_HANDLE_INVALID);
  std::string file;
  for (const auto& entry : fs::recursive_directory_iterator(logFolder())) {
    if (entry.is_regular_file()) file = entry.path().lexically_relative(logFolder()).generic_string();
  }
  EXPECT_EQ(shape(file), "unit_tests/9999-99-99.LOG");
  const std::string log = rawLog();
  EXPECT_EQ(shape(log.substr(log.find("C_CloseSession\n") - 34)),
            "99/99::99:99:99:999-> ->DEBUG ::=>C_CloseSession\n"
            "99/99::99:99:99:999-> ->ERROR ::=>C_CloseSession: invalid hSession=9\n");
  EXPECT_EQ(log.substr(0, 5), file.substr(19, 2) + "/" + file.substr(16, 2));  // the day comes first
}

TEST_F(LogTest, LevelIsTheFirstByteOfTheValueAndIsReadForEveryLine) {
  const CK_SESSION_HANDLE bad = 1;
  auto expectLines = [&](bool errors, bool calls) {
    Lines expected{"= 0xB3"};
    if (errors) expected.insert(expected.begin(), "C_CloseSession: invalid hSession=1");
    if (calls) expected.insert(expected.begin(), "- C_CloseSession");
    EXPECT_EQ(run(CALL(C_CloseSession, bad)), expected);
  };
  testPlatform::setLogLevel(std::nullopt);
  expectLines(true, false);
  for (const std::uint32_t level : {0u, 1u, 2u, 3u, 4u, 127u, 128u, 255u, 256u, 259u, 0xFFFFFF02u}) {
    SCOPED_TRACE(level);
    testPlatform::setLogLevel(level);
    const std::uint32_t first = level & 255;
    expectLines(first > 1 && first < 128, first == 3);
  }
  for (const auto& [set, errorsLogged, callsLogged] : testPlatform::oddLogLevels()) {
    set();
    expectLines(errorsLogged, callsLogged);
  }
}

TEST_F(LogTest, LinesThatCannotBeWrittenAreDroppedAndThatIsPrinted) {
  ASSERT_TRUE(waitForListings(2));  // the monitor writes its last line after the first
  logLevel(2);
  const fs::path folder = logFolder().parent_path();
  const auto printedOver = [](const fs::path& temporary) {
    ::testing::internal::CaptureStdout();
    testPlatform::useTemporaryFolder(temporary);
    C_CloseSession(1);
    testPlatform::useTemporaryFolder(logFolder().parent_path());
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
  };
  std::ofstream(folder / "file") << "x";
  fs::create_directories(folder / "blocked");
  std::ofstream(folder / "blocked" / "Quorvane Telemantix") << "x";  // where a folder would be
  for (const auto& [name, printed] : {std::pair{"missing", "\nUnable to getLogBaseFolderPath"},
                                      {"file", "\nUnable to getLogBaseFolderPath"},
                                      {"blocked", "\nUnable to write log"}}) {
    EXPECT_EQ(printedOver(folder / name), printed) << name;
  }
  EXPECT_EQ(printedOver(folder), "");
}

}  // namespace
