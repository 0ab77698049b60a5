#include "result/ImageItem.h"

#include "result/GroupItem.h"
#include "scan/FileCategory.h"

#include <QDateTime>
#include <QFileInfo>
#include <QImageReader>

ImageItem ImageItem::fromEntry(const QString &groupKey, qint32 groupIndex, const QString &entry, bool checked)
{
    ImageItem item;
    item.groupKey = groupKey;
    item.groupIndex = groupIndex;
    item.entry = entry;
    item.path = GroupItem::realPath(entry);
    item.similarity = GroupItem::similarityOf(entry);
    item.checked = checked;

    QFileInfo info(item.path);
    info.stat();
    if (info.isDir()) {
        item.isFolder = true;
        item.category = Folder;
    } else {
        item.category = categoryOf(fileSuffix(item.path));
        item.size = info.exists() ? info.size() : 0;
    }
    return item;
}

QString ImageItem::dateDisplay() const
{
    return dateText.isEmpty() ? modifiedText(path) : dateText;
}

QSize ImageItem::headerSize(const QString &path)
{
    if (path.isEmpty())
        return QSize(-1, -1);
    // No format hint: the reader picks the format from the content; size() reads the
    // header only and never decodes the pixels.
    QImageReader reader(path);
    const QSize size = reader.size();
    return size.isValid() ? size : QSize(-1, -1);
}

QString ImageItem::resolutionText(const QString &path)
{
    const QSize size = headerSize(path);
    if (!size.isValid())
        return QStringLiteral("%1x%2").arg(QStringLiteral("-"), QStringLiteral("-"));
    return QStringLiteral("%1x%2").arg(size.width()).arg(size.height());
}

QString ImageItem::modifiedText(const QString &path)
{
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists())
        return QString();
    return info.lastModified().toString(QStringLiteral("yyyy/MM/dd HH:mm:ss"));
}
