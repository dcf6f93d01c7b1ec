// Money as the terminal's language writes it (QLocale's way): "65.000 ₫" in Vietnamese,
// "65,000 ₫" in English. Not a library: it reads the context property "language", so that a
// binding that shows money is evaluated again when the language is switched.

function format(amount) {
    return Number(amount).toLocaleString(Qt.locale(language.localeName), "f", 0) + " \u20ab"
}
