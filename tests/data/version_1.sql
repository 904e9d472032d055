-- The log of version_0.sql one release later: schema version 1, devices may have a GUID, parameters
-- have no sum.

CREATE TABLE periods (period INTEGER PRIMARY KEY NOT NULL, max_entries INTEGER NOT NULL);
INSERT INTO periods VALUES (1, 1440);
INSERT INTO periods VALUES (5, 288);

CREATE TABLE devices (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL,
    guid TEXT UNIQUE);
INSERT INTO devices VALUES (1, 'plant/pump', '6d0f4e9a-7c1b-4b7e-9d55-0f3f6d1f2a11');
INSERT INTO devices VALUES (3, 'plant/mixer', NULL);

CREATE TABLE params_1 (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL,
    type INTEGER NOT NULL, has_min INTEGER NOT NULL, has_max INTEGER NOT NULL,
    has_avg INTEGER NOT NULL, has_actual INTEGER NOT NULL);
INSERT INTO params_1 VALUES (1, 'u', 0, 1, 1, 1, 0);
INSERT INTO params_1 VALUES (2, 'cosphi', 1, 0, 0, 1, 1);

CREATE TABLE params_3 (idx INTEGER PRIMARY KEY NOT NULL, path TEXT UNIQUE NOT NULL,
    type INTEGER NOT NULL, has_min INTEGER NOT NULL, has_max INTEGER NOT NULL,
    has_avg INTEGER NOT NULL, has_actual INTEGER NOT NULL);

CREATE TABLE trends_1_1 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL,
    param_1_min REAL, param_1_max REAL, param_1_avg REAL, param_2_avg REAL, param_2_actual REAL);
INSERT INTO trends_1_1 VALUES (60, 100.0, 229.0, 231.0, 230.0, 0.9, 0.91);
INSERT INTO trends_1_1 VALUES (120, 100.0, 228.0, 230.0, 229.0, 0.9, 0.89);
INSERT INTO trends_1_1 VALUES (180, 0.0, NULL, NULL, NULL, NULL, NULL);
INSERT INTO trends_1_1 VALUES (240, 50.0, 230.0, 232.0, 231.0, -0.95, -0.95);
INSERT INTO trends_1_1 VALUES (300, 100.0, 229.0, 230.0, 229.5, 0.9, 0.9);
INSERT INTO trends_1_1 VALUES (360, 100.0, 230.0, 230.0, 230.0, 0.9, 0.9);

CREATE TABLE trends_1_5 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL,
    param_1_min REAL, param_1_max REAL, param_1_avg REAL, param_2_avg REAL, param_2_actual REAL);
INSERT INTO trends_1_5 VALUES (300, 70.0, 228.0, 232.0, 229.75, 0.95, 0.9);

CREATE TABLE trends_3_1 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL);
INSERT INTO trends_3_1 VALUES (60, 100.0);
CREATE TABLE trends_3_5 (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL);

PRAGMA user_version = 1;
