#pragma once

#include <QByteArray>
#include <QString>

#include <qcoro/qcorotask.h>

class QNetworkReply;

// A network reply's body read into memory, never more than a limit: a reply that announces a
// longer body, or sends one, is aborted as soon as that is known, so a hostile or broken server
// cannot make the program hold a gigabyte. The bytes counted are the ones the program reads, after
// any content decoding, so a small compressed "bomb" stops at the limit too. Main thread only.
namespace CappedReply {

// What any JSON answer of the service fits in many times over.
constexpr qint64 answerLimit = 1 << 20;

struct Body
{
    QByteArray bytes;
    bool tooLarge = false; // the reply was aborted and `bytes` is empty
};

// Waits until `reply` has finished and returns its body. Its status, headers and error are read
// from the reply afterwards; a reply that was too large ends as an aborted one.
QCoro::Task<Body> read(QNetworkReply *reply, qint64 limit);

// What the user reads when a reply was too large.
QString tooLargeText();

} // namespace CappedReply
