// Keeps the test fixture library non-empty while it has no fixtures of its own.
