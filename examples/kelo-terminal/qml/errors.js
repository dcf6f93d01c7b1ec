// What the cashier reads when something goes wrong: words, never codes, in the terminal's
// language (the context "Errors" of its translations).
.pragma library

// origin: 0 network failure, 1 refusal (SDK or server), 2 the terminal's own.
function describe(code, message, origin) {
    if (origin === 0) {
        switch (code) {
        case 1: return qsTranslate("Errors", "The cloud refused the connection. Check that the terminal is online and try again.")
        case 2: return qsTranslate("Errors", "The connection to the cloud was cut. Please try again.")
        case 3: return qsTranslate("Errors", "The cloud's address cannot be found. Check the network settings.")
        case 4: return qsTranslate("Errors", "The cloud did not answer in time. Please try again.")
        case 6: return qsTranslate("Errors", "The cloud could not prove who it is (certificate not trusted). Call support.")
        case 299: return qsTranslate("Errors", "The cloud sent far too much data. Call support.")
        default: return qsTranslate("Errors", "The cloud cannot be reached right now. Please try again.")
        }
    }
    if (origin === 2) {
        switch (code) {
        case 901: return qsTranslate("Errors", "The terminal's security certificate is missing. Call support.")
        case 902: return qsTranslate("Errors", "The e-wallet did not send a QR code. Cancel the payment and try again.")
        default: return qsTranslate("Errors", "The cloud's answer could not be read. Please try again.")
        }
    }
    switch (code) {
    case 102: case 106: case 110: case 111: case 112: case 113:
        return qsTranslate("Errors", "The terminal is still busy with the last request. Wait a moment and try again.")
    case 103: return qsTranslate("Errors", "An e-wallet payment is already waiting. Finish or cancel it first.")
    case 104: return qsTranslate("Errors", "That payment is already being cancelled.")
    case 105: case 240: case 241: return qsTranslate("Errors", "That e-wallet payment is no longer open.")
    case 107: return qsTranslate("Errors", "Someone is already logged in on this terminal. Log out first.")
    case 108: return qsTranslate("Errors", "Nobody is logged in.")
    case 203: return qsTranslate("Errors", "This terminal is not registered for this restaurant. Call support.")
    case 210: return qsTranslate("Errors", "Wrong user name or password. Please try again.")
    case 211: return qsTranslate("Errors", "This account cannot log in with that role. Choose the other role.")
    case 212: return qsTranslate("Errors", "The cloud does not know this staff member. Log out and in again.")
    case 220: return qsTranslate("Errors", "That table does not exist.")
    case 221: return qsTranslate("Errors", "A table cannot be merged into itself.")
    case 230: case 231: case 232:
        return qsTranslate("Errors", "The e-wallet payment could not be started (security check failed). Please try again.")
    case 233: return qsTranslate("Errors", "The amount to pay must be above zero.")
    case 234: return qsTranslate("Errors", "This payment method is not available.")
    default: return qsTranslate("Errors", "The cloud could not do that. Please try again, or call support if it keeps happening.")
    }
}
