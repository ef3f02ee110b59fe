// Placeholder translation unit for a library whose sources have not landed yet.
