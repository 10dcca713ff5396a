#pragma once
// One running application per sessions store. The first start holds a lock file and listens on a local
// socket in the user's runtime folder; a later start asks it to show the widget and leaves.
#include <QLockFile>
#include <QObject>
#include <QString>
#include <memory>

class QLocalServer;

namespace skeldrin {

class SingleInstance : public QObject {
    Q_OBJECT
  public:
    // `storeDirectory` names the store the instance runs against.
    explicit SingleInstance(const QString& storeDirectory, QObject* parent = nullptr);
    ~SingleInstance() override;

    // True when this process is now the one instance; false when another one runs and was told to show
    // its widget. Throws std::runtime_error when neither is possible.
    bool claim();

    QString serverName() const { return name_; }

  Q_SIGNALS:
    // Another start asked the running instance to show its widget.
    void reopenRequested();

  private:
    QString name_;
    std::unique_ptr<QLockFile> lock_;
    QLocalServer* server_ = nullptr;
};

} // namespace skeldrin
