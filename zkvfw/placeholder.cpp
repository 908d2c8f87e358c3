// Replaced by the client session.
