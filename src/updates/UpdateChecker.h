#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <chrono>
#include <variant>

class QNetworkReply;

namespace vellum {

// The latest release, as the feed describes it.
struct Release {
  QString version;
  QUrl downloadPage;
  QString notes;
  bool operator==(const Release&) const = default;
};

namespace update_check {
struct UpToDate {
  QString current;
  bool operator==(const UpToDate&) const = default;
};
struct Available {
  Release release;
  QString current;
  bool operator==(const Available&) const = default;
};
// Why no answer could be given, as the sentence to show.
struct Failed {
  QString message;
  bool operator==(const Failed&) const = default;
};
}  // namespace update_check

using UpdateCheck =
    std::variant<update_check::UpToDate, update_check::Available, update_check::Failed>;

// The sentence the application shows for an answer.
QString describe(const UpdateCheck& check);

// Asks a small JSON feed ({"version", "downloadPage", "notes"}) whether a
// newer version exists. It only reads: it never downloads or runs anything.
// HTTPS only, but for loopback addresses (tests serve their own feed).
class UpdateChecker final : public QObject {
  Q_OBJECT
 public:
  static constexpr qint64 kMaxFeedBytes = 64 * 1024;

  UpdateChecker(QUrl feed, QString currentVersion,
                std::chrono::milliseconds timeout = std::chrono::seconds(10),
                QObject* parent = nullptr);

  // The feed the build names, unless the setting VLUpdateFeed names another.
  static QUrl configuredFeed();

  // Starts a check; finished() follows, once. A check already under way is
  // abandoned for the new one.
  void check();

  // The answer a feed's body gives: pure, for any bytes.
  static UpdateCheck interpret(const QByteArray& body, const QString& currentVersion);
  // Numerically, part by part: 1.10 is newer than 1.9; missing parts are 0.
  // Negative, zero or positive as a is older, the same or newer than b.
  static int compareVersions(const QString& a, const QString& b);

 signals:
  void finished(const vellum::UpdateCheck& check);

 private:
  void done(QNetworkReply* reply);

  QUrl feed_;
  QString current_;
  std::chrono::milliseconds timeout_;
  QNetworkAccessManager network_;
  QPointer<QNetworkReply> reply_;
  bool tooLarge_ = false;
};

}  // namespace vellum
