#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>

#include "updates/UpdateChecker.h"

namespace vellum {
namespace {

using namespace std::chrono_literals;

// Serves one canned HTTP answer on the loopback interface; an empty answer
// means the server accepts and then says nothing.
class FeedServer {
 public:
  explicit FeedServer(QByteArray answer) : answer_(std::move(answer)) {
    EXPECT_TRUE(server_.listen(QHostAddress::LocalHost));
    QObject::connect(&server_, &QTcpServer::newConnection, [this] {
      QTcpSocket* socket = server_.nextPendingConnection();
      QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
        socket->readAll();
        if (answer_.isEmpty()) return;
        socket->write(answer_);
        socket->disconnectFromHost();
      });
    });
  }
  QUrl url() const {
    return QUrl("http://127.0.0.1:" + QString::number(server_.serverPort()) + "/latest.json");
  }

 private:
  QByteArray answer_;
  QTcpServer server_;
};

QByteArray http(const QByteArray& body, const QByteArray& type = "application/json") {
  return "HTTP/1.1 200 OK\r\nContent-Type: " + type +
         "\r\nContent-Length: " + QByteArray::number(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

UpdateCheck checkAgainst(const QUrl& url, std::chrono::milliseconds timeout = 5s) {
  UpdateChecker checker(url, "1.9", timeout);
  QSignalSpy finished(&checker, &UpdateChecker::finished);
  checker.check();
  EXPECT_TRUE(finished.wait(15'000));
  EXPECT_EQ(finished.count(), 1);
  return finished.isEmpty() ? UpdateCheck{} : finished[0][0].value<UpdateCheck>();
}

std::string said(const UpdateCheck& check) {
  return describe(check).toStdString();
}

TEST(UpdateChecker, TellsANewerVersionFromTheSameOneOnALoopbackFeed) {
  const QByteArray newer =
      R"({"version": "1.10", "downloadPage": "https://vellumcheck.org/download", "notes": "Faster wipes."})";
  const FeedServer server(http(newer));
  const UpdateCheck check = checkAgainst(server.url());
  ASSERT_TRUE(std::holds_alternative<update_check::Available>(check)) << said(check);
  EXPECT_EQ(std::get<update_check::Available>(check).release.downloadPage,
            QUrl("https://vellumcheck.org/download"));
  EXPECT_EQ(said(check), "Vellum Check 1.10 is available (you have 1.9).\n\nFaster wipes.");

  // Versions compare as numbers: 1.9.0 is the version running.
  const FeedServer same(
      http(R"({"version": "1.9.0", "downloadPage": "https://vellumcheck.org/download"})"));
  EXPECT_EQ(said(checkAgainst(same.url())), "Vellum Check 1.9 is the latest version.");
}

TEST(UpdateChecker, EveryBadAnswerGetsItsOwnSentence) {
  const struct {
    QByteArray answer;
    std::string sentence;
  } cases[] = {
      {http(R"({"version": "9.0", "downloadPage": "http://vellumcheck.org/download"})"),
       "The update information named a download address that isn't secure (HTTPS), so it was "
       "ignored. Visit vellumcheck.org for the latest version."},
      {http(QByteArray(200'000, '{')),
       "The update information from the server was far too large to be genuine, so it was "
       "ignored. Visit vellumcheck.org for the latest version."},
      {http("<html>Login to the hotel wifi</html>", "text/html"),
       "The update server sent something other than update information. Try again later. "
       "Visit vellumcheck.org for the latest version."},
  };
  for (const auto& [answer, sentence] : cases) {
    const FeedServer server(answer);
    EXPECT_EQ(said(checkAgainst(server.url())), sentence) << answer.left(60).toStdString();
  }

  const FeedServer silent({});
  EXPECT_EQ(said(checkAgainst(silent.url(), 300ms)),
            "The update server didn't answer within 0.3 seconds. Check your internet "
            "connection, or try again later.");

  EXPECT_EQ(said(checkAgainst(QUrl("http://vellumcheck.org/latest.json"))),
            "The update address http://vellumcheck.org/latest.json isn't secure (HTTPS), so "
            "Vellum won't use it.");
}

}  // namespace
}  // namespace vellum

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  qRegisterMetaType<vellum::UpdateCheck>();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
