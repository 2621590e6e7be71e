-- The table that database.conf fills. Timestamps are text, because PostgreSQL would reject a line with an invalid one.
create table torvi (device text, time text, level text, delay_ms bigint, name text, text text, key text,
                    arrived date not null default current_date);
-- The key identifies a line that arrives again, from its device or from the files.
create unique index on torvi (device, key);
create index on torvi (device, time);
create index on torvi (device, delay_ms desc);
create index on torvi (arrived);

create function torvi_add(line json) returns void language sql as $$
    insert into torvi (device, time, level, delay_ms, name, text, key)
    select device, time, level, delay_ms, name, text, key from json_populate_record(null::torvi, line)
    on conflict do nothing
$$;

-- Adds a line of the files. Skips a truncated line, and one without a key, because the table can already contain it.
create function torvi_refill(line text) returns void language plpgsql as $$
begin
    if line::json ->> 'key' is not null then
        perform torvi_add(line::json);
    end if;
exception when data_exception then null;
end $$;

-- Per device: the number of unexpected exits, and the longest delay with its name and time.
create view fleet as
select total.*, worst.delay_ms as worst_ms, worst.name as "of", worst.time as "at"
from (select device, count(*) as lines, count(*) filter (where name = 'keepwatch' and level = 'error'
             and text like '%ended unexpectedly%') as ends from torvi group by device) as total
left join lateral (select * from torvi where torvi.device = total.device and delay_ms is not null
                   order by delay_ms desc limit 1) as worst on true
order by ends desc, worst_ms desc nulls last;
