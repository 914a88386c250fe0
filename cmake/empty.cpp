// Placeholder translation unit for a library folder without sources yet.
