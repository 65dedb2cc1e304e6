#include "updates/UpdateChecker.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QSettings>

namespace vellum {
namespace {

const QString kVisit = "Visit vellumcheck.org for the latest version.";

bool isLoopback(const QUrl& url) {
  if (url.host() == "localhost") return true;
  const QHostAddress address(url.host());
  return !address.isNull() && address.isLoopback();
}

update_check::Failed failed(const QString& message) {
  return {message};
}

}  // namespace

QString describe(const UpdateCheck& check) {
  if (const auto* upToDate = std::get_if<update_check::UpToDate>(&check)) {
    return "Vellum Check " + upToDate->current + " is the latest version.";
  }
  if (const auto* available = std::get_if<update_check::Available>(&check)) {
    QString text = "Vellum Check " + available->release.version + " is available (you have " +
                   available->current + ").";
    if (!available->release.notes.isEmpty()) text += "\n\n" + available->release.notes;
    return text;
  }
  return std::get<update_check::Failed>(check).message;
}

UpdateChecker::UpdateChecker(QUrl feed, QString currentVersion, std::chrono::milliseconds timeout,
                             QObject* parent)
    : QObject(parent),
      feed_(std::move(feed)),
      current_(std::move(currentVersion)),
      timeout_(timeout) {}

QUrl UpdateChecker::configuredFeed() {
  return QUrl(QSettings().value("VLUpdateFeed", QStringLiteral(VELLUM_UPDATE_FEED)).toString());
}

int UpdateChecker::compareVersions(const QString& a, const QString& b) {
  const QStringList left = a.split('.');
  const QStringList right = b.split('.');
  for (qsizetype index = 0; index < std::max(left.size(), right.size()); ++index) {
    const qulonglong x = index < left.size() ? left[index].toULongLong() : 0;
    const qulonglong y = index < right.size() ? right[index].toULongLong() : 0;
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

UpdateCheck UpdateChecker::interpret(const QByteArray& body, const QString& currentVersion) {
  const QString unreadable =
      "The update information from the server couldn't be read. Try again later. " + kVisit;
  if (body.size() > kMaxFeedBytes) {
    return failed(
        "The update information from the server was far too large to be genuine, so "
        "it was ignored. " +
        kVisit);
  }
  QJsonParseError error{};
  const QJsonDocument document = QJsonDocument::fromJson(body, &error);
  if (error.error != QJsonParseError::NoError || !document.isObject()) return failed(unreadable);
  const QJsonObject feed = document.object();
  const QJsonValue version = feed.value("version");
  const QJsonValue page = feed.value("downloadPage");
  const QJsonValue notes = feed.value("notes");
  static const QRegularExpression kVersion(R"(^\d{1,9}(\.\d{1,9}){0,3}$)");
  if (!version.isString() || !kVersion.match(version.toString()).hasMatch() || !page.isString() ||
      !(notes.isUndefined() || notes.isString())) {
    return failed(unreadable);
  }
  const QUrl download(page.toString(), QUrl::StrictMode);
  if (!download.isValid() || download.scheme() != "https" || download.host().isEmpty()) {
    return failed(
        "The update information named a download address that isn't secure (HTTPS), "
        "so it was ignored. " +
        kVisit);
  }
  if (compareVersions(version.toString(), currentVersion) <= 0) {
    return update_check::UpToDate{currentVersion};
  }
  return update_check::Available{
      Release{version.toString(), download, notes.toString().left(2000).trimmed()}, currentVersion};
}

void UpdateChecker::check() {
  if (reply_) {
    reply_->disconnect(this);
    reply_->abort();
    reply_->deleteLater();
  }
  if (feed_.scheme() != "https" && !(feed_.scheme() == "http" && isLoopback(feed_))) {
    // Answered from the event loop, as every other answer is.
    const UpdateCheck refusal = failed("The update address " + feed_.toString() +
                                       " isn't secure (HTTPS), so Vellum "
                                       "won't use it.");
    QMetaObject::invokeMethod(
        this, [this, refusal] { emit finished(refusal); }, Qt::QueuedConnection);
    return;
  }
  QNetworkRequest request(feed_);
  request.setTransferTimeout(static_cast<int>(timeout_.count()));
  request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                       QNetworkRequest::NoLessSafeRedirectPolicy);
  request.setHeader(QNetworkRequest::UserAgentHeader, "Vellum Check/" + current_);
  tooLarge_ = false;
  QNetworkReply* reply = network_.get(request);
  reply_ = reply;
  // A hostile or broken server must not make us read without end.
  connect(reply, &QNetworkReply::downloadProgress, this,
          [this, reply](qint64 received, qint64 total) {
            if (received > kMaxFeedBytes || total > kMaxFeedBytes) {
              tooLarge_ = true;
              reply->abort();
            }
          });
  connect(reply, &QNetworkReply::finished, this, [this, reply] { done(reply); });
}

void UpdateChecker::done(QNetworkReply* reply) {
  reply->deleteLater();
  if (reply != reply_) return;
  reply_.clear();
  if (tooLarge_) {
    emit finished(interpret(QByteArray(kMaxFeedBytes + 1, ' '), current_));
    return;
  }
  const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
  switch (reply->error()) {
    case QNetworkReply::NoError:
      break;
    case QNetworkReply::OperationCanceledError:
    case QNetworkReply::TimeoutError:
      emit finished(failed("The update server didn't answer within " +
                           QString::number(std::chrono::duration<double>(timeout_).count()) +
                           " seconds. Check your internet connection, or try again later."));
      return;
    default:
      if (status >= 400) {
        emit finished(failed("The update server answered with an error (HTTP " +
                             QString::number(status) + "). Try again later. " + kVisit));
      } else {
        emit finished(failed("Vellum couldn't reach the update server (" + reply->errorString() +
                             "). Check your internet connection and try again."));
      }
      return;
  }
  const QString type = reply->header(QNetworkRequest::ContentTypeHeader).toString();
  if (!type.startsWith("application/json")) {
    emit finished(
        failed("The update server sent something other than update information. Try "
               "again later. " +
               kVisit));
    return;
  }
  emit finished(interpret(reply->read(kMaxFeedBytes + 1), current_));
}

}  // namespace vellum
