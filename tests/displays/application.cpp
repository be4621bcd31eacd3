// Pictures need fonts, axes a widget, and both an application; no screen.
#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

namespace {

class application : public testing::Environment {
 public:
  void SetUp() override {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qt_ = std::make_unique<QApplication>(argc_, argv_);
  }
  void TearDown() override { qt_.reset(); }

 private:
  int argc_ = 1;
  char name_[16] = "displays_tests";
  char* argv_[2] = {name_, nullptr};
  std::unique_ptr<QApplication> qt_;
};

const auto* const environment = testing::AddGlobalTestEnvironment(new application);

}  // namespace
