#include "app/FindDevicesDialog.hpp"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "app/DeviceFinder.hpp"
#include "app/MonitorAdvertiser.hpp"

namespace kavrin {
namespace {

// A row's device is its name, the first column's text, and its type, kept in the item's data.
constexpr int typeRole = Qt::UserRole;

QString foundAs(const OSCService& service) {
    const auto framing = service.txt.find("framing");
    return QString::fromStdString(service.type) +
           (framing != service.txt.end() ? QStringLiteral(" (%1)").arg(QString::fromStdString(framing->second))
                                         : QString());
}

QString pingsGoTo(const DeviceFinder::Device& device) {
    if (!device.choice) return device.note;
    return QStringLiteral("%1 %2:%3")
        .arg(QString::fromLatin1(MonitorLink::nameOf(device.choice->transport)),
             QString::fromStdString(device.choice->host))
        .arg(device.choice->port);
}

}  // namespace

FindDevicesDialog::FindDevicesDialog(std::shared_ptr<DispatchQueue> mainQueue,
                                     MonitorAdvertiser& advertiser, bool advertise, QWidget* parent)
    : QDialog(parent),
      finder_(new DeviceFinder(std::move(mainQueue), this)),
      advertiser_(advertiser),
      status_(new QLabel(this)),
      list_(new QTreeWidget(this)),
      advertise_(new QCheckBox(tr("Advertise this monitor, so that a console's setup can find it"), this)),
      advertiseStatus_(new QLabel(this)) {
    setWindowTitle(tr("Find OSC Devices"));
    resize(560, 320);
    status_->setObjectName(QStringLiteral("FindStatusLab"));
    status_->setWordWrap(true);
    list_->setObjectName(QStringLiteral("DeviceList"));
    list_->setColumnCount(3);
    list_->setHeaderLabels({tr("Name"), tr("Found as"), tr("Pings go")});
    list_->setRootIsDecorated(false);
    list_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    advertise_->setObjectName(QStringLiteral("AdvertiseBox"));
    advertise_->setChecked(advertise);
    advertiseStatus_->setObjectName(QStringLiteral("AdvertiseStatusLab"));
    advertiseStatus_->setWordWrap(true);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    use_ = buttons->addButton(tr("Use"), QDialogButtonBox::AcceptRole);
    use_->setObjectName(QStringLiteral("UseButton"));
    use_->setToolTip(tr("Pings go to this device from the next tick; the settings are stored"));
    connect(use_, &QPushButton::clicked, this, &FindDevicesDialog::choose);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(list_, &QTreeWidget::itemDoubleClicked, this, &FindDevicesDialog::choose);
    connect(list_, &QTreeWidget::currentItemChanged, this, &FindDevicesDialog::enableUse);
    connect(finder_, &DeviceFinder::changed, this, &FindDevicesDialog::showDevices);
    connect(advertise_, &QCheckBox::toggled, this, &FindDevicesDialog::advertiseToggled);
    const auto showAdvertising = [this] { advertiseStatus_->setText(advertiser_.status()); };
    connect(&advertiser_, &MonitorAdvertiser::changed, this, showAdvertising);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(status_);
    layout->addWidget(list_);
    layout->addWidget(advertise_);
    layout->addWidget(advertiseStatus_);
    layout->addWidget(buttons);
    showDevices();
    showAdvertising();
}

void FindDevicesDialog::showDevices() {
    // Rebuilt whole, the current row kept by its device.
    const QTreeWidgetItem* current = list_->currentItem();
    const QStringList currentKey =
        current ? QStringList{current->text(0), current->data(0, typeRole).toString()} : QStringList();
    const QSignalBlocker quiet(list_);
    list_->clear();
    for (const auto& device : finder_->devices()) {
        auto* item = new QTreeWidgetItem(list_, {QString::fromStdString(device.service.name),
                                                 foundAs(device.service), pingsGoTo(device)});
        item->setData(0, typeRole, QString::fromStdString(device.service.type));
        item->setToolTip(0, QString::fromStdString(device.service.hostName));
        if (!device.choice) item->setFlags(item->flags() & ~Qt::ItemIsEnabled);
        if (QStringList{item->text(0), item->data(0, typeRole).toString()} == currentKey) {
            list_->setCurrentItem(item);
        }
    }
    const auto count = finder_->devices().size();
    status_->setText(!finder_->status().isEmpty() ? finder_->status()
                     : count == 0 ? tr("Looking for OSC devices on the network\u2026")
                     : count == 1 ? tr("1 OSC device found on the network.")
                                  : tr("%1 OSC devices found on the network.").arg(count));
    enableUse();
}

void FindDevicesDialog::enableUse() {
    use_->setEnabled(list_->currentItem() != nullptr && !list_->currentItem()->isDisabled());
}

void FindDevicesDialog::choose() {
    const QTreeWidgetItem* item = list_->currentItem();
    if (item == nullptr) return;
    for (const auto& device : finder_->devices()) {
        if (QString::fromStdString(device.service.name) == item->text(0) &&
            QString::fromStdString(device.service.type) == item->data(0, typeRole).toString() &&
            device.choice) {
            emit chosen(*device.choice);
            accept();
            return;
        }
    }
}

}  // namespace kavrin
