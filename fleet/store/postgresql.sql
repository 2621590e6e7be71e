-- The lines of the collector by day. The day is from the file name, by the collector's clock. Timestamps are text,
-- because that of a device can be invalid.
create table lines (day date, device text, time text, level text, delay_ms bigint, name text, text text, key uuid,
                    primary key (device, key));
create index on lines (device, time);
create index on lines (device, delay_ms desc); -- for the view
create index on lines (day);

-- Per device: the number of unexpected exits, and the longest delay with its name and time.
create view fleet as
select total.*, worst.delay_ms as worst_ms, worst.name as "of", worst.time as "at"
from (select device, count(*) as lines, count(*) filter (where name = 'keepwatch' and level = 'error'
             and text like '%ended unexpectedly%') as ends from lines group by device) as total
left join lateral (select * from lines where lines.device = total.device and delay_ms is not null
                   order by delay_ms desc limit 1) as worst on true
order by ends desc, worst_ms desc nulls last;
