// What the cashier reads when something goes wrong: words, never codes.
.pragma library

// origin: 0 network failure, 1 refusal (SDK or server), 2 the terminal's own.
function describe(code, message, origin) {
    if (origin === 0) {
        switch (code) {
        case 1: return "The cloud refused the connection. Check that the terminal is online and try again."
        case 2: return "The connection to the cloud was cut. Please try again."
        case 3: return "The cloud's address cannot be found. Check the network settings."
        case 4: return "The cloud did not answer in time. Please try again."
        case 6: return "The cloud could not prove who it is (certificate not trusted). Call support."
        case 299: return "The cloud sent far too much data. Call support."
        default: return "The cloud cannot be reached right now. Please try again."
        }
    }
    if (origin === 2) {
        switch (code) {
        case 901: return "The terminal's security certificate is missing. Call support."
        case 902: return "The e-wallet did not send a QR code. Cancel the payment and try again."
        default: return "The cloud's answer could not be read. Please try again."
        }
    }
    switch (code) {
    case 102: case 106: case 110: case 111: case 112: case 113:
        return "The terminal is still busy with the last request. Wait a moment and try again."
    case 103: return "An e-wallet payment is already waiting. Finish or cancel it first."
    case 104: return "That payment is already being cancelled."
    case 105: case 240: case 241: return "That e-wallet payment is no longer open."
    case 107: return "Someone is already logged in on this terminal. Log out first."
    case 108: return "Nobody is logged in."
    case 203: return "This terminal is not registered for this restaurant. Call support."
    case 210: return "Wrong user name or password. Please try again."
    case 211: return "This account cannot log in with that role. Choose the other role."
    case 212: return "The cloud does not know this staff member. Log out and in again."
    case 220: return "That table does not exist."
    case 221: return "A table cannot be merged into itself."
    case 230: case 231: case 232:
        return "The e-wallet payment could not be started (security check failed). Please try again."
    case 233: return "The amount to pay must be above zero."
    case 234: return "This payment method is not available."
    default: return "The cloud could not do that. Please try again, or call support if it keeps happening."
    }
}
