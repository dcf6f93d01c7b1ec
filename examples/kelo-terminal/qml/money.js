.pragma library

function format(amount) {
    return Number(amount).toLocaleString(Qt.locale("en_US"), "f", 0) + " \u20ab"
}
