#pragma once

#include <QDateTime>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QString>
#include <QThreadPool>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

#include "checks/CheckTypes.h"
#include "session/RunProgress.h"
#include "session/Session.h"
#include "summary/Card.h"
#include "summary/CheckAction.h"

namespace vellum {

class CheckModel;

// The model as its workers see it: a pointer the model clears, under the
// lock, before it goes away.
struct ModelLink {
  std::mutex mutex;
  CheckModel* model = nullptr;
};

// Carries a worker's news to the model on the user-interface thread. Holds
// the model weakly: once the model is gone, news is dropped, never delivered.
class ProgressRelay {
 public:
  explicit ProgressRelay(std::shared_ptr<ModelLink> link) : link_(std::move(link)) {}

  // Callable from any thread. Progress that arrives while an earlier batch
  // waits for the user-interface thread joins that batch, so a fast run
  // cannot flood the event loop.
  void send(const CheckProgress& progress) const;
  void deliver(std::function<void(CheckModel&)> call) const;

 private:
  struct Batch {
    std::mutex mutex;
    std::vector<CheckProgress> waiting;
  };
  std::shared_ptr<ModelLink> link_;
  std::shared_ptr<Batch> batch_ = std::make_shared<Batch>();
};

// The application's one driver: the card list and selection, the stage, the
// live progress of the one run at a time, and the texts of the step bar. Its
// published fields change on the user-interface thread only; the run and the
// disk-list refresh work on a thread pool of their own.
class CheckModel final : public QObject {
  Q_OBJECT
  Q_PROPERTY(Stage stage READ stage NOTIFY stageChanged)
  Q_PROPERTY(CardList cards READ cards NOTIFY cardsChanged)
  Q_PROPERTY(SelectedCard selected READ selected WRITE select NOTIFY selectedChanged)
  Q_PROPERTY(bool isRefreshing READ isRefreshing NOTIFY isRefreshingChanged)
  Q_PROPERTY(LiveProgress progress READ progress NOTIFY progressChanged)
  Q_PROPERTY(QList<double> speedHistory READ speedHistory NOTIFY speedHistoryChanged)
  Q_PROPERTY(QString statusLine READ statusLine NOTIFY statusLineChanged)
  Q_PROPERTY(int step READ step NOTIFY stepChanged)
  Q_PROPERTY(QString stepStatus READ stepStatus NOTIFY stepChanged)
  Q_PROPERTY(bool needsRestore READ needsRestore NOTIFY needsRestoreChanged)
  Q_PROPERTY(NoticeList notices READ notices NOTIFY noticesChanged)

 public:
  // A run and its result keep the card they are about, whatever the list
  // shows meanwhile: erasing and formatting change a disk's volumes.
  struct Running {
    CheckAction action;
    Card card;
    bool operator==(const Running&) const = default;
  };
  struct Result {
    CheckAction action;
    CheckOutcome outcome;
    QDateTime finished;
    Card card;
    bool operator==(const Result&) const = default;
  };
  struct Failed {
    QString message;
    bool operator==(const Failed&) const = default;
  };
  struct Home {
    bool operator==(const Home&) const = default;
  };
  using Stage = std::variant<Running, Result, Failed, Home>;
  using CardList = std::vector<Card>;
  using SelectedCard = std::optional<Card>;
  using LiveProgress = std::optional<CheckProgress>;
  using NoticeList = std::vector<Notice>;
  // Where in the speed history a phase began.
  struct PhaseMark {
    qsizetype sample;
    CheckProgress::Phase phase;
    bool operator==(const PhaseMark&) const = default;
  };

  // The speed chart keeps this many samples, so it stays cheap to redraw.
  static constexpr qsizetype kMaxSpeedSamples = 400;

  // Reads the demo-card setting once, here, unless simulate overrides it for
  // this run (the application's --demo).
  explicit CheckModel(std::unique_ptr<DiskPlatform> platform,
                      std::optional<bool> simulate = std::nullopt, QObject* parent = nullptr);
  // Stops a run and waits for it: a Quick Check puts the card's data back
  // before the model is gone.
  ~CheckModel() override;

  const Stage& stage() const { return stage_; }
  const CardList& cards() const { return cards_; }
  const SelectedCard& selected() const { return selected_; }
  bool isRefreshing() const { return isRefreshing_; }
  const LiveProgress& progress() const { return progress_; }
  const QList<double>& speedHistory() const { return speedHistory_; }
  const std::vector<PhaseMark>& phaseMarks() const { return phaseMarks_; }
  // The whole run's step, fraction and time left; none outside a run.
  const std::optional<RunProgress>& runProgress() const { return runProgress_; }
  // Seconds since the current run began.
  double elapsedSeconds() const;
  // What the last run, stop or restore left the user to know, shown as lines
  // (warnings were also shown in a box by alert()).
  const NoticeList& notices() const { return notices_; }
  // The card of the stage: the one running or the one a result is about;
  // else the selected one.
  std::optional<Card> stageCard() const;
  // The listed card that is the same medium as card (its volumes may have
  // new names); none when it is no longer listed.
  std::optional<Card> listedAgain(const Card& card) const;
  const QString& statusLine() const { return statusLine_; }
  bool simulate() const { return simulate_; }
  bool isRunning() const { return std::holds_alternative<Running>(stage_); }
  // The selected card holds test data of an interrupted Quick Check.
  bool needsRestore() const { return needsRestore_; }
  // True for a listed card that holds such data.
  bool hasInterruptedCheck(const Card& card) const;
  // The flag of the current run; the Stop button cancels it.
  CancellationFlag& cancelFlag() { return *cancelFlag_; }
  Session& session() { return *session_; }

  // The step bar: 0 with no card, 1 with one, 2 while running, 4 with a result.
  int step() const;
  QString stepStatus() const;

  void select(const SelectedCard& card);
  // Re-reads the disk list on a worker and keeps or drops the selection.
  void refresh();
  // Starts the action on the card the user chose and confirmed, and returns
  // at once; the run refuses a disk that is no longer that medium. A backup,
  // when given, is saved first (replacing a file the save panel confirmed).
  void run(const Card& card, CheckAction action,
           std::optional<std::filesystem::path> backupTo = std::nullopt,
           std::optional<FormatChoice> format = std::nullopt);
  // Puts back the data of the selected card's interrupted Quick Check on a
  // worker; says what it did through notice().
  void restoreData();
  // Leaves the result or failure screen.
  void done();
  // With demo cards on, selects the card VLAutoCard names and runs VLAutoRun.
  void autoRunIfRequested();

  // Called on the user-interface thread by the run's relay: the latest
  // progress is shown, every one of them adds its speed sample.
  void update(const CheckProgress& progress) { update(std::vector{progress}); }
  void update(const std::vector<CheckProgress>& batch);

 signals:
  void stageChanged();
  void cardsChanged();
  void selectedChanged();
  void isRefreshingChanged();
  void progressChanged();
  void speedHistoryChanged();
  void statusLineChanged();
  void stepChanged();
  void needsRestoreChanged();
  void noticesChanged();
  // Something the user must act on (a volume not mounted again, a backup
  // holding zeros, a failed restore): shown in a box as well as a line.
  void alert(const QString& text);

 private:
  void setStage(Stage stage);
  void setProgress(LiveProgress progress);
  void setStatusLine(const QString& text);
  void setIsRefreshing(bool refreshing);
  void finish(CheckAction action, CheckOutcome outcome, const Card& card);
  void fail(const QString& message);
  void backHome();
  void applyDiskList(int generation, const std::vector<ExternalDisk>& disks);
  void lookForInterruptedChecks();
  void addNotice(const Notice& notice, bool alerting);
  void clearNotices();

  Stage stage_ = Home{};
  CardList cards_;
  SelectedCard selected_;
  bool isRefreshing_ = false;
  LiveProgress progress_;
  QList<double> speedHistory_;
  std::vector<PhaseMark> phaseMarks_;
  std::optional<RunProgress> runProgress_;
  QElapsedTimer runClock_;
  NoticeList notices_;
  QString statusLine_;
  std::shared_ptr<CancellationFlag> cancelFlag_ = std::make_shared<CancellationFlag>();
  bool simulate_ = false;
  bool needsRestore_ = false;
  bool restoring_ = false;
  std::vector<std::string> interrupted_;  // ids of listed cards with a journal
  int refreshGeneration_ = 0;

  std::unique_ptr<DiskPlatform> platform_;
  std::unique_ptr<Session> session_;
  std::shared_ptr<ModelLink> link_ = std::make_shared<ModelLink>();
  QThreadPool workers_;
};

}  // namespace vellum
