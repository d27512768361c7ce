"""pytest plugin: a simulator per test and a session to it."""
