#pragma once

// Private to the simulator's state (CloudState): what its parts give each other. CloudState's
// public functions are in cloudstate.cpp, handle() and the routes it serves in cloudroutes.cpp.

#include "cloudbooks_p.h"

#include <QByteArray>
#include <QJsonValue>
#include <QString>

namespace kelocloud {

namespace detail {

// The e-wallet application id the cloud reports with every invoice.
constexpr int kWalletAppId = 1;

// ---- fixture reading (cloudfixture.cpp) ------------------------------------------------------

/// A whole JSON number within 53 bits (what a JSON number holds exactly).
bool wholeNumber(const QJsonValue& v, qint64* out);
/// Reads the fixture @p text of @p file into @p out; false with @p error naming the file and the
/// field, "f.json: menu[3].price: ...".
bool readFixture(const QString& file, const QByteArray& text, Fixture* out, QString* error);
/// The built-in fixture, ":/kelocloud/restaurant.json".
QByteArray readBuiltInFixture();

// ---- pictures (cloudpictures.cpp) ------------------------------------------------------------

/// The PNG picture of @p dish, the same bytes for the same dish and "img_crc". With @p bytes
/// above 0, exactly that many bytes (a smaller drawing and a private padding chunk, filled from
/// the dish's digest); empty if even the smallest drawing does not fit.
QByteArray renderPicture(const Dish& dish, int bytes = 0);
/// The smallest picture size renderPicture() can reach (a 16 x 16 drawing and the padding).
constexpr int minPictureBytes = 1024;
/// The largest picture size the simulator makes: far above any menu picture, and every picture
/// is held in memory once made.
constexpr int maxPictureBytes = 16 * 1024 * 1024;

// ---- routes (cloudroutes.cpp) ----------------------------------------------------------------

/// The hex HMAC-SHA256 of @p data with @p key, as the cloud signs.
QString hmac(const QByteArray& data, const QByteArray& key);

} // namespace detail

} // namespace kelocloud
