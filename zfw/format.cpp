// Replaced by the formatter.
