// The driver's setup program driven through its requests, in-process: stand-in setup and user
// programs record their command lines, a stand-in "QVFAFilter" service makes the driver present,
// and the OS family comes through its seam.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fileaudit/driver_installation.h"
#include "settings/agent_parameters.h"
#include "support/test_support.h"
#include "win/strings.h"
#include "win/unique_handle.h"

namespace {

using korva::test::HasLogLine;

int g_family = 7;
int TestFamily() { return g_family; }

// Registers a stopped "QVFAFilter" service for the object's lifetime: the driver is then present.
class PresentDriver {
 public:
  PresentDriver() {
    const korva::win::UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    const std::wstring program = L"\"" + korva::test::ProgramFolder() + L"\\korvaStandIn.exe\"";
    service_.reset(CreateServiceW(manager.get(), L"QVFAFilter", L"QVFAFilter", SERVICE_ALL_ACCESS,
                                  SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                  program.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  }
  ~PresentDriver() {
    if (service_) DeleteService(service_.get());
  }
  bool registered() const { return static_cast<bool>(service_); }

 private:
  korva::win::UniqueServiceHandle service_;
};

class DriverInstallationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string install = dir_.NarrowPath() + "\\";
    AgentParameters.installDirectory = static_cast<char*>(std::calloc(install.size() + 1, 1));
    std::memcpy(AgentParameters.installDirectory, install.c_str(), install.size());
    AgentParameters.isWow64 = 1;  // a 64-bit machine whichever build runs the test
    CreateDirectoryW(dir_.File(L"bin").c_str(), nullptr);
    bin_ = std::make_unique<korva::test::StandInFolder>(dir_.File(L"bin"));
    bin_->Add(L"driversetup64");
    bin_->Add(L"korvaFaUser");
    korva::SetOsFamilySourceForTest(&TestFamily);
  }
  void TearDown() override {
    korva::SetOsFamilySourceForTest(nullptr);
    korva::ResetAgentParametersForTest();
  }
  // The options each setup run got: what follows the program's quoted path.
  std::vector<std::string> SetupRuns() const {
    std::vector<std::string> runs;
    for (const auto& entry : bin_->Journal()) {
      const std::size_t quote = entry.commandLine.find("driversetup64.exe\"");
      if (quote != std::string::npos) runs.push_back(entry.commandLine.substr(quote + 18));
    }
    return runs;
  }

  korva::test::TempDir dir_;
  std::unique_ptr<korva::test::StandInFolder> bin_;
};

TEST_F(DriverInstallationTest, RequestsInstallOnlyAnAbsentDriverBeforeStartingIt) {
  const std::string inf = "\"" + dir_.NarrowPath() + "\\\\bin\\driver\\x64\\Win10\\QVFAFilter.inf\"";
  const struct {
    const char* name;
    bool present;
    int family;
    int request;
    std::vector<std::string> runs;
  } cases[] = {
      {"absent driver, start", false, 7, 1, {"  -install " + inf, " -start"}},
      {"present driver, start", true, 7, 1, {" -start"}},
      {"absent driver, stop", false, 6, 2, {" -stop"}},
      {"install request", true, 6, 3, {" -install " + inf}},
      {"older than Windows 7", false, 2, 1, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    g_family = c.family;
    bin_->ClearJournal();
    std::unique_ptr<PresentDriver> driver;
    if (c.present) {
      driver = std::make_unique<PresentDriver>();
      ASSERT_TRUE(driver->registered()) << GetLastError();
    }
    korva::test::LogCapture log;
    DriverServiceExecution(c.request);
    EXPECT_EQ(SetupRuns(), c.runs);
    const std::string text = log.Text();
    EXPECT_EQ(
        HasLogLine(text, "DriverServiceExecution", "OS detected as below windows 7. Neglecting driver installation."),
        c.family == 2);
  }
}

TEST_F(DriverInstallationTest, UnsupportedFamilyStillRunsWithoutAReleaseFolder) {
  g_family = 9;
  korva::test::LogCapture log;
  DriverServiceExecution(3);
  const std::string text = log.Text();
  EXPECT_TRUE(HasLogLine(text, "GetOSBasedDriverPath", "OS Family is not supported."));
  EXPECT_EQ(SetupRuns(),
            std::vector<std::string>{" -install \"" + dir_.NarrowPath() + "\\\\bin\\driver\\x64\\\\QVFAFilter.inf\""});
  EXPECT_NE(text.find("[ DriverServiceExecution ] Return Value [0] with errorcode :"), std::string::npos);
}

TEST_F(DriverInstallationTest, UserProgramStartsFromTheBinFolderWithoutArguments) {
  StartDriverUserApplication();
  const auto journal = bin_->WaitForJournal(1, 10000);
  ASSERT_EQ(journal.size(), 1u);
  EXPECT_EQ(journal[0].name, "korvaFaUser");
  EXPECT_NE(journal[0].commandLine.find("bin\\korvaFaUser.exe\""), std::string::npos) << journal[0].commandLine;
}

}  // namespace
