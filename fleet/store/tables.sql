-- A collector's lines, by day, which `load` fills from the collector's files, and all collectors' together.
create database torvi;

-- The day is that of the file, which is the collector's; all stamps are text, since a device may write no date.
create table torvi.lines (day Date, device String, time String, level String, delay_ms Nullable(Int64),
    name String, text String, key String) engine = MergeTree partition by day order by (device, time);

-- The same on every server of the cluster in torvi.xml. A question to it fails if one of them is away.
create table torvi.fleetlines as torvi.lines engine = Distributed(torvi, torvi, lines);

-- The fleet at a glance: how often programs ended unexpectedly, and the worst delay, of whom and when.
create view torvi.fleet as
select device, count() as lines,
    countIf(name = 'keepwatch' and level = 'error' and text like '%ended unexpectedly%') as ends,
    max(delay_ms) as worst_ms, argMax(name, delay_ms) as of, argMax(time, delay_ms) as at
from torvi.fleetlines group by device order by ends desc, worst_ms desc;
